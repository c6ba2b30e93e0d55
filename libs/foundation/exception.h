#pragma once

// Failures are exceptions derived from fn::Exception. Beyond its message an exception can
// carry error information (detail, path, errno, libuv errno, Windows error, error code and a
// stack trace), which travels with it across processes.

#include <cstdint>
#include <exception>
#include <optional>
#include <vector>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

struct StackFrame {
  uint64_t address = 0;
  String moduleName;
  String symbolName;
  String fileName;
  int64_t fileLine = 0;
  bool operator==(StackFrame const&) const = default;
};

struct ErrorInfo {
  std::optional<String> detail;
  std::optional<String> path;
  std::optional<int64_t> errnoValue;
  std::optional<int64_t> uvErrno;
  std::optional<int64_t> winError;
  std::optional<int64_t> errorCode;
  std::optional<std::vector<StackFrame>> stackTrace;
};

class FN_EXPORT Exception : public std::exception {
public:
  enum class StackTrace { None, Capture };

  explicit Exception(StackTrace trace = StackTrace::None);
  explicit Exception(String message, StackTrace trace = StackTrace::None);

  virtual String className() const { return "Exception"; }
  String const& message() const { return _message; }
  char const* what() const noexcept override { return _message.c_str(); }
  /// "ClassName: message" followed by whatever error information is attached.
  virtual String toString() const;

  ErrorInfo const& info() const { return _info; }
  ErrorInfo& info() { return _info; }

  static std::vector<StackFrame> captureStackTrace(int skip = 1);

private:
  String _message;
  ErrorInfo _info;
};

#define FN_DECLARE_EXCEPTION(Name, Base)                      \
  class FN_EXPORT Name : public Base {                        \
  public:                                                     \
    using Base::Base;                                         \
    ::fn::String className() const override { return #Name; } \
  }

FN_DECLARE_EXCEPTION(RuntimeException, Exception);
FN_DECLARE_EXCEPTION(RangeException, RuntimeException);
FN_DECLARE_EXCEPTION(IllegalArgumentException, RuntimeException);
FN_DECLARE_EXCEPTION(DataFormatException, RuntimeException);
FN_DECLARE_EXCEPTION(NullPointerException, RuntimeException);
FN_DECLARE_EXCEPTION(IllegalStateException, RuntimeException);
FN_DECLARE_EXCEPTION(IOException, RuntimeException);
FN_DECLARE_EXCEPTION(FileException, IOException);
FN_DECLARE_EXCEPTION(TimeoutException, RuntimeException);
FN_DECLARE_EXCEPTION(OperationTimedOutException, RuntimeException);

/// Attach error information while keeping the exception's own type, as in
/// `throw withDetail(RangeException("Invalid boxed type"), text);`.
template <typename E>
std::decay_t<E> withDetail(E&& e, String detail) {
  std::decay_t<E> copy(std::forward<E>(e));
  copy.info().detail = std::move(detail);
  return copy;
}
template <typename E>
std::decay_t<E> withPath(E&& e, String path) {
  std::decay_t<E> copy(std::forward<E>(e));
  copy.info().path = std::move(path);
  return copy;
}
template <typename E>
std::decay_t<E> withErrno(E&& e, int64_t value) {
  std::decay_t<E> copy(std::forward<E>(e));
  copy.info().errnoValue = value;
  return copy;
}

/// The text of any exception pointer: fn::Exception::toString, what(), or a fixed text.
FN_EXPORT String describeException(std::exception_ptr const& error);

/// Reports the exception being handled (call from a catch block) to the log and goes on.
FN_EXPORT void unhandledException();

/// Logs `error` at priority 1 with an optional context text.
FN_EXPORT void logException(std::exception_ptr const& error, std::string_view context = {});

}  // namespace fn

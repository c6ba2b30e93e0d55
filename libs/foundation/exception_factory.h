#pragma once

// fn::ExceptionFactory: makes exceptions by class name, so that an exception that crossed a
// process boundary as its class name, message and error information comes back as an object
// of the same class.
//
// One process-wide instance; registration and creation may happen on any thread (libraries
// register their classes while they load). The foundation's own classes are registered from
// the start; other libraries add theirs with registerClass<E>().

#include <exception>
#include <functional>
#include <mutex>
#include <unordered_map>

#include "foundation/exception.h"
#include "foundation/export.h"

namespace fn {

class FN_EXPORT ExceptionFactory {
public:
  using Creator = std::function<std::exception_ptr(String const& message, ErrorInfo info)>;

  static ExceptionFactory& instance();

  void registerClass(String const& className, Creator creator);
  /// Registers `E` under its own className(); E needs a constructor taking the message.
  template <typename E>
  void registerClass() {
    registerClass(E(String()).className(), [](String const& message, ErrorInfo info) {
      E exception(message);
      exception.info() = std::move(info);
      return std::make_exception_ptr(std::move(exception));
    });
  }

  bool knows(String const& className) const;

  /// An exception of the class registered as `className`, carrying `message` and `info`. An
  /// unknown class yields a RuntimeException with the message; its class name is kept in
  /// front of the detail ("ClassName" or "ClassName: detail") so that logs still show it.
  std::exception_ptr createException(String const& className,
                                     String const& message,
                                     ErrorInfo info = {}) const;

private:
  ExceptionFactory();

  mutable std::mutex _mutex;
  std::unordered_map<String, Creator> _creators;
};

}  // namespace fn

#pragma once

#include <uv.h>

#include "foundation/exception.h"
#include "foundation/export.h"
#include "foundation/string.h"

namespace fn::uv {

FN_DECLARE_EXCEPTION(UVException, IOException);

/// The outcome of a libuv call: a code (0 or a negative UV_E* value) and what was attempted.
class FN_EXPORT Status {
public:
  Status() = default;
  explicit Status(int code) : _code(code < 0 ? code : 0) {}
  Status(String context, int code) : _context(std::move(context)), _code(code < 0 ? code : 0) {}

  bool ok() const { return _code == 0; }
  explicit operator bool() const { return ok(); }
  int code() const { return _code; }
  String const& context() const { return _context; }
  /// "context: ECONNREFUSED (connection refused)", or "OK".
  String toString() const;
  /// Throws UVException carrying the libuv errno when this is an error.
  void throwOnError() const;

private:
  String _context;
  int _code = 0;
};

}  // namespace fn::uv

template <>
struct fmt::formatter<fn::uv::Status> : fmt::formatter<std::string_view> {
  auto format(fn::uv::Status const& s, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(s.toString()), ctx);
  }
};

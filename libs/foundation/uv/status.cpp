#include "foundation/uv/status.h"

namespace fn::uv {

String Status::toString() const {
  if (ok())
    return _context.empty() ? String("OK") : _context + ": OK";
  auto text = fmt::format("{} ({})", uv_err_name(_code), uv_strerror(_code));
  return _context.empty() ? String(text) : _context + ": " + text;
}

void Status::throwOnError() const {
  if (ok())
    return;
  UVException error(toString());
  error.info().uvErrno = _code;
  throw error;
}

}  // namespace fn::uv

#include <io.h>

#include <cerrno>

#include "foundation/log_target.h"

namespace fn {

LogTarget::~LogTarget() = default;

void LogConsoleTarget::write(std::string_view text, bool) {
  // One write per text, so that lines of several processes sharing the console do not mix.
  while (!text.empty()) {
    int written = ::_write(2, text.data(), static_cast<unsigned>(text.size()));
    if (written <= 0)
      return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace fn

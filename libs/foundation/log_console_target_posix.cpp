#include <unistd.h>

#include <cerrno>

#include "foundation/log_target.h"

namespace fn {

LogTarget::~LogTarget() = default;

void LogConsoleTarget::write(std::string_view text, bool) {
  // One write per text, so that lines of several processes sharing the console do not mix.
  while (!text.empty()) {
    ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0)
      return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace fn

#include "foundation/logging/console_target.h"

#include <unistd.h>

#include <ctime>

namespace fn::logging {

void LogConsoleTarget::write(Message const& message) {
  using namespace std::chrono;
  auto since = message.time.time_since_epoch();
  time_t seconds = duration_cast<std::chrono::seconds>(since).count();
  auto millis = duration_cast<milliseconds>(since).count() % 1000;
  tm local{};
  localtime_r(&seconds, &local);
  auto line =
      fmt::format("{:02}:{:02}:{:02}.{:03} {} {}: {}\n", local.tm_hour, local.tm_min, local.tm_sec,
                  millis, priorityName(message.priority), message.category.name(), message.text);
  // One write per line so that lines of several processes sharing stderr do not interleave.
  ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
  (void)ignored;
}

}  // namespace fn::logging

#include "foundation/logging/console_sink.h"

#include "foundation/date_time.h"

namespace fn::logging {

ConsoleSink::ConsoleSink() : _target(makeAuto<LogConsoleTarget>()) {}

void ConsoleSink::logMessage(Category const& category, Message const& message) {
  LocalDateTime local(message.time());
  fmt::memory_buffer line;
  fmt::format_to(std::back_inserter(line), "{:02}:{:02}:{:02}.{:03} {} {}: {}\n", local.hour(),
                 local.minute(), local.second(), local.millisecond(),
                 priorityName(message.priority()), category.name(), message.text());
  _target->write(std::string_view(line.data(), line.size()), message.priority() <= WRN);
}

}  // namespace fn::logging

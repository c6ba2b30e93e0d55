#include "foundation/date_time.h"

namespace fn {

LocalDateTime::LocalDateTime() : LocalDateTime(DateTime::now()) {}

String DateTimeFormatter::format(LocalDateTime const& time, std::string_view pattern) {
  fmt::memory_buffer out;
  formatTo(out, time, pattern);
  return String(std::string_view(out.data(), out.size()));
}

void DateTimeFormatter::formatTo(fmt::memory_buffer& out,
                                 LocalDateTime const& time,
                                 std::string_view pattern) {
  auto put = std::back_inserter(out);
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] != '%' || i + 1 == pattern.size()) {
      out.push_back(pattern[i]);
      continue;
    }
    switch (char code = pattern[++i]) {
      case 'Y':
        fmt::format_to(put, "{:04}", time.year());
        break;
      case 'm':
        fmt::format_to(put, "{:02}", time.month());
        break;
      case 'd':
        fmt::format_to(put, "{:02}", time.day());
        break;
      case 'j':
        fmt::format_to(put, "{:03}", time.dayOfYear());
        break;
      case 'H':
        fmt::format_to(put, "{:02}", time.hour());
        break;
      case 'M':
        fmt::format_to(put, "{:02}", time.minute());
        break;
      case 'S':
        fmt::format_to(put, "{:02}", time.second());
        break;
      case 'F':
        formatTo(out, time, "%Y-%m-%d");
        break;
      case 'T':
        formatTo(out, time, "%H:%M:%S");
        break;
      case '%':
        out.push_back('%');
        break;
      default:
        out.push_back('%');
        out.push_back(code);
    }
  }
}

}  // namespace fn

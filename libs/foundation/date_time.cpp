#include "foundation/date_time.h"

#include "foundation/local_time.h"

namespace fn {

LocalDateTime::LocalDateTime() : LocalDateTime(DateTime::now()) {}

LocalDateTime::LocalDateTime(DateTime const& time) {
  using namespace std::chrono;
  auto since = time.timePoint().time_since_epoch();
  auto seconds = floor<std::chrono::seconds>(since);
  _millisecond = static_cast<int>(duration_cast<milliseconds>(since - seconds).count());
  // The conversion takes the time zone's lock inside the C library; a busy logging thread
  // asks for the same second many times over.
  thread_local int64_t cachedSecond = -1;
  thread_local std::tm cached{};
  int64_t whole = seconds.count();
  if (whole != cachedSecond) {
    std::tm local{};
    if (!toLocalTime(whole, local))
      return;
    cached = local;
    cachedSecond = whole;
  }
  _year = cached.tm_year + 1900;
  _month = cached.tm_mon + 1;
  _day = cached.tm_mday;
  _dayOfYear = cached.tm_yday + 1;
  _hour = cached.tm_hour;
  _minute = cached.tm_min;
  _second = cached.tm_sec;
}

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

#include <time.h>

#include "foundation/date_time.h"

namespace fn {

LocalDateTime::LocalDateTime(DateTime const& time) {
  using namespace std::chrono;
  auto since = time.timePoint().time_since_epoch();
  auto seconds = floor<std::chrono::seconds>(since);
  _millisecond = static_cast<int>(duration_cast<milliseconds>(since - seconds).count());
  // The conversion takes the time zone's lock inside the C library; a busy logging thread
  // asks for the same second many times over.
  thread_local time_t cachedSecond = -1;
  thread_local tm cached{};
  time_t whole = static_cast<time_t>(seconds.count());
  if (whole != cachedSecond) {
    tm local{};
    if (!::localtime_r(&whole, &local))
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

}  // namespace fn

#include <time.h>

#include "foundation/date_time.h"

namespace fn {

LocalDateTime::LocalDateTime(DateTime const& time) {
  using namespace std::chrono;
  auto since = time.timePoint().time_since_epoch();
  auto seconds = floor<std::chrono::seconds>(since);
  _millisecond = static_cast<int>(duration_cast<milliseconds>(since - seconds).count());
  thread_local __time64_t cachedSecond = -1;
  thread_local tm cached{};
  __time64_t whole = static_cast<__time64_t>(seconds.count());
  if (whole != cachedSecond) {
    tm local{};
    if (::_localtime64_s(&local, &whole) != 0)
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

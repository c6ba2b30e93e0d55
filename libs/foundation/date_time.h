#pragma once

// Local calendar time and its formatting with strftime-like patterns, for log files and file
// names. A DateTime is an instant; a LocalDateTime is that instant on the local clock.

#include <string_view>

#include "foundation/export.h"
#include "foundation/string.h"
#include "foundation/timestamp.h"

namespace fn {

using DateTime = Timestamp;

class FN_EXPORT LocalDateTime {
public:
  /// The current local time.
  LocalDateTime();
  explicit LocalDateTime(DateTime const& time);

  int year() const { return _year; }
  /// 1 to 12.
  int month() const { return _month; }
  int day() const { return _day; }
  /// 1 to 366.
  int dayOfYear() const { return _dayOfYear; }
  int hour() const { return _hour; }
  int minute() const { return _minute; }
  int second() const { return _second; }
  int millisecond() const { return _millisecond; }

private:
  int _year = 1970, _month = 1, _day = 1, _dayOfYear = 1;
  int _hour = 0, _minute = 0, _second = 0, _millisecond = 0;
};

struct DateTimeFormat {
  /// Sorts as text in time order: "2024-03-05 14:07:09".
  static constexpr char const* SORTABLE_FORMAT = "%Y-%m-%d %H:%M:%S";
};

class FN_EXPORT DateTimeFormatter {
public:
  /// `pattern` with %Y (year), %m (month), %d (day), %j (day of the year), %H, %M, %S (hour,
  /// minute, second), %F (%Y-%m-%d), %T (%H:%M:%S) and %% replaced, numbers zero-padded to
  /// their usual width; anything else is copied as it stands.
  static String format(LocalDateTime const& time, std::string_view pattern);
  /// Appends the same to `out`.
  static void formatTo(fmt::memory_buffer& out,
                       LocalDateTime const& time,
                       std::string_view pattern);
};

}  // namespace fn

#pragma once

#include <chrono>
#include <compare>
#include <string_view>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

/// An instant on `Clock`.
template <typename Clock>
class TimestampBase {
public:
  using TimePoint = typename Clock::time_point;

  TimestampBase() = default;
  explicit TimestampBase(TimePoint time) : _time(time) {}

  TimePoint timePoint() const { return _time; }
  auto operator<=>(TimestampBase const&) const = default;

private:
  TimePoint _time{};
};

/// A wall-clock instant, as stored in preferences and shown to people.
class FN_EXPORT Timestamp : public TimestampBase<std::chrono::system_clock> {
public:
  using TimestampBase::TimestampBase;
  Timestamp(TimestampBase const& base) : TimestampBase(base) {}

  static Timestamp now() { return Timestamp(std::chrono::system_clock::now()); }
  static Timestamp fromUnixSeconds(int64_t seconds) {
    return Timestamp(TimePoint(std::chrono::seconds(seconds)));
  }

  /// RFC 1123 in UTC, as "Sun, 06 Nov 1994 08:49:37 GMT"; fractions of a second are dropped.
  String toRfc1123() const;
  /// Reads an RFC 1123 date: the weekday is optional, the zone is GMT, UT, UTC, Z or a
  /// differential such as +0100, which is taken off to give the UTC instant.
  /// DataFormatException for any other text.
  static Timestamp fromRfc1123(std::string_view text);

  String toString() const { return toRfc1123(); }
};

}  // namespace fn

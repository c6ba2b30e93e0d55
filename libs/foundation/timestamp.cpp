#include "foundation/timestamp.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>
#include <optional>

#include "foundation/exception.h"

namespace fn {
namespace {

using namespace std::chrono;

// Fixed English names: RFC 1123 dates never follow the user's locale.
constexpr std::array<std::string_view, 7> WEEKDAYS = {"Sun", "Mon", "Tue", "Wed",
                                                      "Thu", "Fri", "Sat"};
constexpr std::array<std::string_view, 12> MONTHS = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size())
    return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

class Scanner {
public:
  explicit Scanner(std::string_view text) : _text(text) {}

  bool atEnd() const { return _at == _text.size(); }
  void skipBlanks() {
    while (!atEnd() && (_text[_at] == ' ' || _text[_at] == '\t'))
      ++_at;
  }
  bool literal(char c) {
    if (atEnd() || _text[_at] != c)
      return false;
    ++_at;
    return true;
  }
  std::string_view word() {
    size_t start = _at;
    while (!atEnd() && std::isalpha(static_cast<unsigned char>(_text[_at])))
      ++_at;
    return _text.substr(start, _at - start);
  }
  std::optional<int> digits(size_t minCount, size_t maxCount) {
    size_t start = _at;
    int value = 0;
    while (!atEnd() && _at - start < maxCount &&
           std::isdigit(static_cast<unsigned char>(_text[_at])))
      value = value * 10 + (_text[_at++] - '0');
    if (_at - start < minCount)
      return std::nullopt;
    return value;
  }

private:
  std::string_view _text;
  size_t _at = 0;
};

[[noreturn]] void invalid(std::string_view text) {
  throw withDetail(DataFormatException("Invalid RFC 1123 date"), String(text));
}

}  // namespace

String Timestamp::toRfc1123() const {
  auto seconds = floor<std::chrono::seconds>(timePoint());
  auto days = floor<std::chrono::days>(seconds);
  year_month_day date(days);
  hh_mm_ss time(seconds - days);
  weekday day(days);
  return String(fmt::format("{}, {:02} {} {:04} {:02}:{:02}:{:02} GMT", WEEKDAYS[day.c_encoding()],
                            static_cast<unsigned>(date.day()),
                            MONTHS[static_cast<unsigned>(date.month()) - 1],
                            static_cast<int>(date.year()), time.hours().count(),
                            time.minutes().count(), time.seconds().count()));
}

Timestamp Timestamp::fromRfc1123(std::string_view text) {
  Scanner scan(text);
  scan.skipBlanks();
  std::string_view first = scan.word();
  if (!first.empty()) {
    if (std::find_if(WEEKDAYS.begin(), WEEKDAYS.end(),
                     [&](auto name) { return equalsIgnoringCase(name, first); }) ==
            WEEKDAYS.end() ||
        !scan.literal(','))
      invalid(text);
    scan.skipBlanks();
  }
  auto dayNumber = scan.digits(1, 2);
  scan.skipBlanks();
  std::string_view monthName = scan.word();
  auto month = std::find_if(MONTHS.begin(), MONTHS.end(),
                            [&](auto name) { return equalsIgnoringCase(name, monthName); });
  scan.skipBlanks();
  auto yearNumber = scan.digits(4, 4);
  scan.skipBlanks();
  auto hour = scan.digits(2, 2);
  bool colon = scan.literal(':');
  auto minute = scan.digits(2, 2);
  std::optional<int> second = 0;
  if (scan.literal(':'))
    second = scan.digits(2, 2);
  if (!dayNumber || month == MONTHS.end() || !yearNumber || !hour || !colon || !minute || !second ||
      *hour > 23 || *minute > 59 || *second > 60)
    invalid(text);

  scan.skipBlanks();
  int differentialMinutes = 0;
  bool negative = false;
  if (scan.literal('+') || (negative = scan.literal('-'))) {
    auto zone = scan.digits(4, 4);
    if (!zone || *zone % 100 > 59)
      invalid(text);
    differentialMinutes = (*zone / 100) * 60 + *zone % 100;
    if (negative)
      differentialMinutes = -differentialMinutes;
  } else {
    std::string_view zone = scan.word();
    if (!equalsIgnoringCase(zone, "GMT") && !equalsIgnoringCase(zone, "UT") &&
        !equalsIgnoringCase(zone, "UTC") && !equalsIgnoringCase(zone, "Z"))
      invalid(text);
  }
  scan.skipBlanks();
  if (!scan.atEnd())
    invalid(text);

  year_month_day date{year(*yearNumber),
                      std::chrono::month(static_cast<unsigned>(month - MONTHS.begin()) + 1),
                      day(static_cast<unsigned>(*dayNumber))};
  if (!date.ok())
    invalid(text);
  // A differential says how far local time runs ahead of UTC, so it is taken off.
  auto instant = sys_days(date) + hours(*hour) + minutes(*minute) + seconds(*second) -
                 minutes(differentialMinutes);
  // The clock counts in units far finer than seconds: years such as 9999 are beyond it, and
  // converting them would overflow.
  using Limits = std::numeric_limits<system_clock::rep>;
  auto const latest = duration_cast<seconds>(system_clock::duration(Limits::max()));
  auto const earliest = duration_cast<seconds>(system_clock::duration(Limits::min()));
  if (instant.time_since_epoch() > latest || instant.time_since_epoch() < earliest)
    throw withDetail(DataFormatException("RFC 1123 date out of range"), String(text));
  return Timestamp(time_point_cast<system_clock::duration>(instant));
}

}  // namespace fn

#pragma once

#include <chrono>
#include <cstdint>

namespace fn {

/// A span of time in microseconds.
class Duration {
public:
  constexpr Duration() = default;
  constexpr explicit Duration(int64_t microseconds) : _microseconds(microseconds) {}
  template <typename Rep, typename Period>
  constexpr Duration(std::chrono::duration<Rep, Period> d)
      : _microseconds(std::chrono::duration_cast<std::chrono::microseconds>(d).count()) {}

  static constexpr Duration microseconds(int64_t n) { return Duration(n); }
  static constexpr Duration milliseconds(int64_t n) { return Duration(n * 1000); }
  static constexpr Duration seconds(int64_t n) { return Duration(n * 1000000); }

  constexpr int64_t totalMicroseconds() const { return _microseconds; }
  constexpr int64_t totalMilliseconds() const { return _microseconds / 1000; }
  constexpr double totalSeconds() const { return static_cast<double>(_microseconds) / 1e6; }

  constexpr auto operator<=>(Duration const&) const = default;
  constexpr Duration operator+(Duration other) const {
    return Duration(_microseconds + other._microseconds);
  }
  constexpr Duration operator-(Duration other) const {
    return Duration(_microseconds - other._microseconds);
  }

private:
  int64_t _microseconds = 0;
};

}  // namespace fn

#pragma once

#include <cstdint>
#include <utility>

#include "core/export.h"
#include "foundation/stream.h"
#include "foundation/string.h"

namespace core {

/// A ratio of two 32-bit integers, such as a pixel aspect ratio. A fraction is valid when its
/// denominator is not 0.
///
/// Comparisons multiply crosswise in 32 bits and let the products wrap, and signs are never
/// normalised (1/-2 is not less than 1/2). Stored fractions and their peers in other processes
/// rely on exactly these results, so they must not be "fixed".
class CORE_EXPORT Fraction {
public:
  Fraction(int32_t numerator, int32_t denominator)
      : _numerator(numerator),
        _denominator(denominator) {}

  int32_t numerator() const { return _numerator; }
  int32_t denominator() const { return _denominator; }
  bool valid() const { return _denominator != 0; }
  /// 0.0 for an invalid fraction.
  double asDouble() const;

  /// Euclid on (numerator, denominator) with signed remainders; the numerator itself when the
  /// denominator is below 1.
  int32_t greatestCommonDivisor() const;
  /// Both terms divided by greatestCommonDivisor(). Fractions come from other processes and
  /// from files, so one that cannot be divided (a zero divisor, as in 0/0 or 0/-3, or a
  /// quotient beyond 32 bits, as in -1/-2147483648) is returned unchanged.
  Fraction reduce() const;

  void swap(Fraction& other) noexcept {
    std::swap(_numerator, other._numerator);
    std::swap(_denominator, other._denominator);
  }

  /// "16/9".
  fn::String toString() const;
  /// Reads "num/den"; any other text gives the invalid 0/0.
  static Fraction fromString(fn::String const& text);

  /// Two MessagePack integers, numerator then denominator.
  void serialize(fn::OutputStream& stream) const;
  static Fraction deserialize(fn::InputStream& stream);

  friend CORE_EXPORT bool operator==(Fraction const& a, Fraction const& b);
  friend CORE_EXPORT bool operator<(Fraction const& a, Fraction const& b);
  friend CORE_EXPORT bool operator<=(Fraction const& a, Fraction const& b);
  friend CORE_EXPORT bool operator>(Fraction const& a, Fraction const& b);
  friend CORE_EXPORT bool operator>=(Fraction const& a, Fraction const& b);

private:
  int32_t _numerator;
  int32_t _denominator;
};

inline void swap(Fraction& a, Fraction& b) noexcept {
  a.swap(b);
}

}  // namespace core

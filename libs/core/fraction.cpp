#include "core/fraction.h"

#include <limits>

#include "foundation/exception.h"
#include "foundation/mpack.h"

namespace core {
namespace {

// Two's-complement product that wraps instead of overflowing (which would be undefined).
int32_t wrappingProduct(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

bool lessThan(Fraction const& a, Fraction const& b) {
  return wrappingProduct(b.denominator(), a.numerator()) <
         wrappingProduct(a.denominator(), b.numerator());
}

}  // namespace

double Fraction::asDouble() const {
  if (_denominator == 0)
    return 0.0;
  return static_cast<double>(_numerator) / static_cast<double>(_denominator);
}

int32_t Fraction::greatestCommonDivisor() const {
  if (_denominator < 1)
    return _numerator;
  int32_t a = _numerator;
  int32_t b = _denominator;
  // b stays positive inside the loop, so the remainder can neither trap nor overflow.
  while (b > 0) {
    int32_t r = a % b;
    a = b;
    b = r;
  }
  return a;
}

Fraction Fraction::reduce() const {
  constexpr int32_t MIN = std::numeric_limits<int32_t>::min();
  int32_t divisor = greatestCommonDivisor();
  // Both would trap: division by zero, and MIN / -1, whose quotient has no 32-bit form.
  if (divisor == 0 || (divisor == -1 && (_numerator == MIN || _denominator == MIN)))
    return *this;
  return Fraction(_numerator / divisor, _denominator / divisor);
}

fn::String Fraction::toString() const {
  return fn::String(fmt::format("{}/{}", _numerator, _denominator));
}

Fraction Fraction::fromString(fn::String const& text) {
  auto pieces = text.split("/");
  if (pieces.size() != 2)
    return Fraction(0, 0);
  auto numerator = pieces[0].toInt(10);
  auto denominator = pieces[1].toInt(10);
  if (!numerator || !denominator || !std::in_range<int32_t>(*numerator) ||
      !std::in_range<int32_t>(*denominator))
    return Fraction(0, 0);
  return Fraction(static_cast<int32_t>(*numerator), static_cast<int32_t>(*denominator));
}

void Fraction::serialize(fn::OutputStream& stream) const {
  fn::mpack::Serializer serializer(stream);
  serializer.serialize(fn::Value(_numerator));
  serializer.serialize(fn::Value(_denominator));
}

Fraction Fraction::deserialize(fn::InputStream& stream) {
  fn::mpack::Deserializer deserializer(stream);
  auto numerator = deserializer.deserialize();
  auto denominator = deserializer.deserialize();
  if (!numerator || !denominator)
    throw fn::withDetail(fn::RangeException("Invalid boxed type"), "Incomplete fraction");
  for (auto const* term : {&*numerator, &*denominator}) {
    if (!term->isInteger())
      throw fn::withDetail(fn::RangeException("Invalid boxed type"), term->detailInfo());
  }
  return Fraction(numerator->to<int32_t>(), denominator->to<int32_t>());
}

bool operator==(Fraction const& a, Fraction const& b) {
  return a.valid() == b.valid() && wrappingProduct(a.numerator(), b.denominator()) ==
                                       wrappingProduct(b.numerator(), a.denominator());
}

bool operator<(Fraction const& a, Fraction const& b) {
  return lessThan(a, b);
}

bool operator>=(Fraction const& a, Fraction const& b) {
  return !lessThan(a, b);
}

bool operator<=(Fraction const& a, Fraction const& b) {
  return a == b || lessThan(a, b);
}

bool operator>(Fraction const& a, Fraction const& b) {
  return a == b ? false : !lessThan(a, b);
}

}  // namespace core

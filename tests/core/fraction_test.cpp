#include "core/fraction.h"

#include <gtest/gtest.h>

#include <limits>

#include "foundation/exception.h"
#include "foundation/mpack.h"

namespace core {
namespace {

TEST(Fraction, EqualityComparesCrossProductsAndValidity) {
  EXPECT_TRUE(Fraction(2, 4) == Fraction(1, 2));
  EXPECT_FALSE(Fraction(2, 4) != Fraction(1, 2));
  // Both invalid: the cross products are 0 == 0.
  EXPECT_TRUE(Fraction(1, 0) == Fraction(2, 0));
  EXPECT_TRUE(Fraction(1, 0) != Fraction(1, 2));
  EXPECT_TRUE(Fraction(0, 1) != Fraction(0, 0));
  // No sign normalisation, but -1/2 and 1/-2 still have equal cross products.
  EXPECT_TRUE(Fraction(-1, 2) == Fraction(1, -2));
}

TEST(Fraction, OrderingUsesUnnormalisedWrappingProducts) {
  EXPECT_TRUE(Fraction(1, 3) < Fraction(1, 2));
  EXPECT_FALSE(Fraction(1, 2) < Fraction(1, 3));
  // (2 * 1) < (-2 * 1) is false: a negative denominator is not normalised.
  EXPECT_FALSE(Fraction(1, -2) < Fraction(1, 2));
  EXPECT_TRUE(Fraction(1, -2) >= Fraction(1, 2));
  EXPECT_TRUE(Fraction(1, -2) > Fraction(1, 2));

  EXPECT_TRUE(Fraction(2, 4) <= Fraction(1, 2));
  EXPECT_FALSE(Fraction(2, 4) > Fraction(1, 2));
  EXPECT_TRUE(Fraction(2, 4) >= Fraction(1, 2));
  EXPECT_FALSE(Fraction(2, 4) < Fraction(1, 2));

  // 65536 * 65536 wraps to 0 in 32 bits: 65536/1 < 1/65536 is decided on 0 < 1.
  Fraction big(65536, 1);
  Fraction wide(1, 65536);
  EXPECT_TRUE(big < wide);
  EXPECT_FALSE(wide < big);
  EXPECT_TRUE(big == Fraction(65536 * 2, 2));
  int32_t max = std::numeric_limits<int32_t>::max();
  // max * 2 wraps to -2: 1/2 < max/1 is decided on (1 * 1) < (2 * max) = 1 < -2.
  EXPECT_FALSE(Fraction(1, 2) < Fraction(max, 1));
}

TEST(Fraction, DivisorAndReduction) {
  EXPECT_EQ(Fraction(6, 4).greatestCommonDivisor(), 2);
  Fraction reduced = Fraction(6, 4).reduce();
  EXPECT_EQ(reduced.numerator(), 3);
  EXPECT_EQ(reduced.denominator(), 2);
  reduced = Fraction(0, 5).reduce();
  EXPECT_EQ(reduced.numerator(), 0);
  EXPECT_EQ(reduced.denominator(), 1);
  // A non-positive denominator starts from the numerator: 1 over (den / num).
  reduced = Fraction(3, -6).reduce();
  EXPECT_EQ(reduced.numerator(), 1);
  EXPECT_EQ(reduced.denominator(), -2);
  EXPECT_EQ(Fraction(7, 0).greatestCommonDivisor(), 7);
  reduced = Fraction(30000, 1001).reduce();
  EXPECT_EQ(reduced.numerator(), 30000);
  EXPECT_EQ(reduced.denominator(), 1001);
}

TEST(Fraction, DoubleValueAndSwap) {
  EXPECT_DOUBLE_EQ(Fraction(16, 9).asDouble(), 16.0 / 9.0);
  EXPECT_DOUBLE_EQ(Fraction(5, 0).asDouble(), 0.0);
  EXPECT_FALSE(Fraction(5, 0).valid());
  Fraction a(1, 2), b(3, 4);
  swap(a, b);
  EXPECT_EQ(a.toString(), "3/4");
  EXPECT_EQ(b.toString(), "1/2");
}

TEST(Fraction, TextForms) {
  EXPECT_EQ(Fraction(16, 9).toString(), "16/9");
  EXPECT_EQ(Fraction(-1, 0).toString(), "-1/0");
  auto parsed = Fraction::fromString("16/9");
  EXPECT_EQ(parsed.numerator(), 16);
  EXPECT_EQ(parsed.denominator(), 9);
  parsed = Fraction::fromString("-3/-4");
  EXPECT_EQ(parsed.numerator(), -3);
  EXPECT_EQ(parsed.denominator(), -4);
  for (char const* malformed : {"16", "1/2/3", "", "/", "a/b", "1/", "99999999999/1", " 1/2"}) {
    parsed = Fraction::fromString(malformed);
    EXPECT_EQ(parsed.numerator(), 0) << malformed;
    EXPECT_EQ(parsed.denominator(), 0) << malformed;
  }
}

TEST(Fraction, StreamFormIsTwoMessagePackIntegers) {
  fn::ByteArray bytes;
  fn::ByteArrayOutputStream out(bytes);
  Fraction(30000, -1001).serialize(out);

  fn::MemoryInputStream raw(bytes);
  fn::mpack::Deserializer reader(raw);
  EXPECT_EQ(reader.deserialize(), fn::Value(30000));
  EXPECT_EQ(reader.deserialize(), fn::Value(-1001));
  EXPECT_FALSE(reader.deserialize().has_value());

  fn::MemoryInputStream in(bytes);
  auto back = Fraction::deserialize(in);
  EXPECT_EQ(back.numerator(), 30000);
  EXPECT_EQ(back.denominator(), -1001);

  fn::ByteArray wrong;
  fn::mpack::encode(fn::Value("1"), wrong);
  fn::mpack::encode(fn::Value(2), wrong);
  fn::MemoryInputStream wrongIn(wrong);
  EXPECT_THROW(Fraction::deserialize(wrongIn), fn::RangeException);
  fn::ByteArray tooBig;
  fn::mpack::encode(fn::Value(int64_t(1) << 40), tooBig);
  fn::mpack::encode(fn::Value(2), tooBig);
  fn::MemoryInputStream tooBigIn(tooBig);
  EXPECT_THROW(Fraction::deserialize(tooBigIn), fn::RangeException);
}

}  // namespace
}  // namespace core

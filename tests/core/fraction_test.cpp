#include "core/fraction.h"

#include <gtest/gtest.h>

#include <limits>

#include "foundation/exception.h"
#include "foundation/mpack.h"

namespace core {
namespace {

TEST(Fraction, ComparisonsUseUnnormalisedWrappingCrossProducts) {
  int32_t max = std::numeric_limits<int32_t>::max();
  struct Case {
    Fraction a, b;
    bool equal, less;
  };
  Case const cases[] = {
      {{2, 4}, {1, 2}, true, false},
      {{1, 3}, {1, 2}, false, true},
      {{1, 2}, {1, 3}, false, false},
      // Both invalid: the cross products are 0 == 0.
      {{1, 0}, {2, 0}, true, false},
      {{1, 0}, {1, 2}, false, false},
      {{0, 1}, {0, 0}, false, false},
      // No sign normalisation: -1/2 == 1/-2, but (2 * 1) < (-2 * 1) is false.
      {{-1, 2}, {1, -2}, true, false},
      {{1, -2}, {1, 2}, false, false},
      {{1, 2}, {1, -2}, false, true},
      // 65536 * 65536 wraps to 0 in 32 bits: decided on 0 < 1.
      {{65536, 1}, {1, 65536}, false, true},
      {{1, 65536}, {65536, 1}, false, false},
      {{65536, 1}, {65536 * 2, 2}, true, false},
      // max * 2 wraps to -2: decided on 1 < -2.
      {{1, 2}, {max, 1}, false, false},
  };
  for (auto const& [a, b, equal, less] : cases) {
    SCOPED_TRACE(a.toString() + " vs " + b.toString());
    EXPECT_EQ(a == b, equal);
    EXPECT_EQ(a != b, !equal);
    EXPECT_EQ(a < b, less);
    EXPECT_EQ(a >= b, !less);
    EXPECT_EQ(a > b, !less && !equal);
    EXPECT_EQ(a <= b, less || equal);
  }
}

TEST(Fraction, ReductionValueAndTextForms) {
  EXPECT_EQ(Fraction(6, 4).greatestCommonDivisor(), 2);
  EXPECT_EQ(Fraction(7, 0).greatestCommonDivisor(), 7);
  // A non-positive denominator starts from the numerator: 1 over (den / num).
  for (auto [from, to] : {std::pair{Fraction(6, 4), "3/2"},
                          {Fraction(0, 5), "0/1"},
                          {Fraction(3, -6), "1/-2"},
                          {Fraction(30000, 1001), "30000/1001"}})
    EXPECT_EQ(from.reduce().toString(), to) << from.toString();
  EXPECT_DOUBLE_EQ(Fraction(16, 9).asDouble(), 16.0 / 9.0);
  EXPECT_DOUBLE_EQ(Fraction(5, 0).asDouble(), 0.0);
  EXPECT_FALSE(Fraction(5, 0).valid());

  EXPECT_EQ(Fraction(-1, 0).toString(), "-1/0");
  auto parsed = Fraction::fromString("-3/-4");
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

// The media value types: fractions and typed byte arrays.

#include <gtest/gtest.h>

#include <limits>

#include "core/fraction.h"
#include "core/typed_byte_array.h"
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
      // No sign normalisation: -1/2 == 1/-2, but (2 * 1) < (-2 * 1) is false.
      {{-1, 2}, {1, -2}, true, false},
      {{1, 2}, {1, -2}, false, true},
      // 65536 * 65536 wraps to 0 in 32 bits: decided on 0 < 1.
      {{65536, 1}, {1, 65536}, false, true},
      // max * 2 wraps to -2: decided on 1 < -2.
      {{1, 2}, {max, 1}, false, false},
  };
  for (auto const& [a, b, equal, less] : cases) {
    SCOPED_TRACE(a.toString() + " vs " + b.toString());
    EXPECT_EQ(a == b, equal);
    EXPECT_EQ(a < b, less);
    EXPECT_EQ(a > b, !less && !equal);
  }
}

TEST(Fraction, ReductionValueAndTextForms) {
  // A non-positive denominator starts from the numerator: 1 over (den / num). What cannot be
  // divided (by zero, or MIN by -1) stays as it is instead of trapping.
  int32_t min = std::numeric_limits<int32_t>::min();
  for (auto [from, to] : {std::pair{Fraction(6, 4), "3/2"},
                          {Fraction(0, 5), "0/1"},
                          {Fraction(3, -6), "1/-2"},
                          {Fraction(7, 0), "1/0"},
                          {Fraction(0, 0), "0/0"},
                          {Fraction(0, -3), "0/-3"},
                          {Fraction(-1, min), "-1/-2147483648"},
                          {Fraction(min, -1), "1/0"}})
    EXPECT_EQ(from.reduce().toString(), to) << from.toString();
  EXPECT_DOUBLE_EQ(Fraction(16, 9).asDouble(), 16.0 / 9.0);
  EXPECT_DOUBLE_EQ(Fraction(5, 0).asDouble(), 0.0);
  EXPECT_EQ(Fraction::fromString("-3/-4").toString(), "-3/-4");
  for (char const* malformed : {"16", "1/2/3", "", "a/b", "1/", "99999999999/1", " 1/2"})
    EXPECT_EQ(Fraction::fromString(malformed).toString(), "0/0") << malformed;
}

TEST(ValueTypes, StreamFormsAreMessagePackValuesAndTheTextNamesTheMimeType) {
  fn::ByteArray bytes, expected;
  fn::ByteArrayOutputStream out(bytes);
  Fraction(30000, -1001).serialize(out);
  TypedByteArray typed(fn::ByteArray{0xff, 0, 7}, "video/mp2t");
  typed.serialize(out);
  EXPECT_EQ(typed.toString(), "video/mp2t " + fn::ByteArray({0xff, 0, 7}).toString());
  for (fn::Value value : {fn::Value(30000), fn::Value(-1001), fn::Value("video/mp2t"),
                          fn::Value(fn::ByteArray{0xff, 0, 7})})
    fn::mpack::encode(value, expected);
  EXPECT_EQ(bytes, expected);

  // A string or a number beyond 32 bits in place of a term; a string in place of the bytes.
  for (fn::Value bad : {fn::Value("1"), fn::Value(int64_t(1) << 40)}) {
    fn::ByteArray wrong;
    fn::mpack::encode(bad, wrong);
    fn::mpack::encode(fn::Value(2), wrong);
    fn::MemoryInputStream in(wrong);
    EXPECT_THROW(Fraction::deserialize(in), fn::RangeException) << bad.toString();
  }
  fn::ByteArray wrong;
  fn::mpack::encode(fn::Value("image/png"), wrong);
  fn::mpack::encode(fn::Value("not bytes"), wrong);
  fn::MemoryInputStream in(wrong);
  try {
    TypedByteArray::deserialize(in);
    FAIL() << "a string in place of the bytes must be rejected";
  } catch (fn::RangeException const& e) {
    EXPECT_EQ(e.message(), "Invalid boxed type");
    EXPECT_NE(e.info().detail.value_or("").find("not bytes"), fn::String::npos);
  }
}

}  // namespace
}  // namespace core

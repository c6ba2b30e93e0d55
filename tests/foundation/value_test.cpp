#include "foundation/value.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "foundation/mpack.h"
#include "support.h"

namespace fn {
namespace {

constexpr uint64_t U64_MAX = std::numeric_limits<uint64_t>::max();
constexpr int64_t I64_MAX = std::numeric_limits<int64_t>::max();

struct Fraction {
  int64_t numerator;
  int64_t denominator;
  String toString() const { return String(fmt::format("{}/{}", numerator, denominator)); }
};

TEST(Value, DecodedPositiveIntegerIsTheSameKeyAsInt) {
  uint8_t const one[] = {0x01};
  Value decoded = mpack::decode(one, sizeof one);
  uint8_t const uint8One[] = {0xcc, 0x01};  // the same number in the unsigned 8-bit form
  Value decodedWide = mpack::decode(uint8One, sizeof uint8One);

  EXPECT_EQ(Value(1), Value(1u));
  EXPECT_EQ(Value(1), Value(uint64_t{1}));
  EXPECT_EQ(Value(1), decoded);
  EXPECT_EQ(Value(1), decodedWide);
  EXPECT_EQ(decodedWide.type(), Value::Type::Integer);

  Value map = Value::map({{1, "one"}});
  map[Value(1u)] = "uno";
  map[decodedWide] = "eins";
  EXPECT_EQ(map.size(), 1u);
  EXPECT_EQ(map.at(decoded).asString(), "eins");
}

TEST(Value, IntegersStayExactAndConversionsCheckTheTargetRange) {
  Value big(U64_MAX);
  Value justAbove(static_cast<uint64_t>(I64_MAX) + 1);
  EXPECT_EQ(big.type(), Value::Type::UnsignedInteger);
  EXPECT_EQ(big.asUInt(), U64_MAX);
  EXPECT_EQ(justAbove.to<uint64_t>(), static_cast<uint64_t>(I64_MAX) + 1);
  EXPECT_EQ(Value(static_cast<uint64_t>(I64_MAX)).type(), Value::Type::Integer);
  EXPECT_NE(big, Value(-1));
  EXPECT_LT(Value(I64_MAX), justAbove);
  EXPECT_EQ(big.toString(), "18446744073709551615");

  // Neither side may wrap into the other's range.
  EXPECT_THROW(big.asInt(), RangeException);
  EXPECT_THROW(big.to<int64_t>(), RangeException);
  EXPECT_THROW(Value(-1).asUInt(), RangeException);
  EXPECT_THROW(Value(1e300).asInt(), RangeException);
  EXPECT_EQ(Value(65535).to<uint16_t>(), 65535);
  EXPECT_EQ(Value(-128).to<int8_t>(), -128);
  for (Value v : {Value(65536), Value(-1), Value(U64_MAX), Value("7")})
    EXPECT_THROW(v.to<uint16_t>(), RangeException) << v.toString();
  EXPECT_THROW(Value(-129).to<int8_t>(), RangeException);
}

TEST(Value, MapKeepsKeysOrderedWhateverTheInsertionOrder) {
  Value map;
  map["b"] = 2;
  map[Value(3)] = "three";
  map["a"] = 1;
  map[Value(true)] = "yes";
  map[Value()] = "nil";
  map[Value(ByteArray{1, 2})] = "bytes";
  map[Value(-5)] = "minus five";

  std::vector<Value> keys;
  for (auto const& [key, item] : map.asMap())
    keys.push_back(key);
  std::vector<Value> expected{Value(),    Value(true),           Value(-5), Value(3), Value("a"),
                              Value("b"), Value(ByteArray{1, 2})};
  EXPECT_EQ(keys, expected);

  // Inserting an existing key replaces, erasing removes exactly one entry.
  map.asMap().insertOrAssign("a", 10);
  EXPECT_EQ(map.size(), 7u);
  EXPECT_EQ(map.at("a"), Value(10));
  EXPECT_EQ(map.erase("b"), 1u);
  EXPECT_EQ(map.erase("b"), 0u);
  EXPECT_FALSE(map.contains("b"));
  EXPECT_EQ(map.get("b", Value(42)), Value(42));
  EXPECT_EQ(map.size(), 6u);

  // NaN is a usable key too.
  double nan = std::numeric_limits<double>::quiet_NaN();
  map[Value(nan)] = 1;
  map[Value(nan)] = 2;
  EXPECT_EQ(map.size(), 7u);
  EXPECT_EQ(map.at(Value(nan)), Value(2));
  EXPECT_EQ(map, map);
}

TEST(Value, AtThrowsRangeExceptionForMissingKeysAndWrongKinds) {
  Value map = Value::map({{"present", 1}});
  EXPECT_EQ(map.at("present"), Value(1));
  try {
    map.at("absent");
    FAIL() << "no exception";
  } catch (RangeException const& e) {
    EXPECT_EQ(e.info().detail, String("\"absent\""));
  }
  EXPECT_THROW(Value(5).at("present"), RangeException);
  EXPECT_THROW(Value::array({1}).element(1), RangeException);
  EXPECT_THROW(map.asArray(), RangeException);
  EXPECT_THROW(Value("text").asByteArray(), RangeException);
  EXPECT_EQ(Value(5).get("present"), Value::NIL);
}

TEST(Value, MapForPathCreatesAndValueForPathIfExistsOnlyReads) {
  Value root;
  root.mapForPath("passwords.mail")["user"] = "me";
  EXPECT_EQ(root.valueForPathIfExists("passwords.mail.user"), Value("me"));
  EXPECT_TRUE(root.at("passwords").isMap());

  // A non-map member on the way is replaced by a map.
  root["scalar"] = 7;
  root.mapForPath("scalar.inner")["x"] = 1;
  EXPECT_EQ(root.valueForPathIfExists("scalar.inner.x"), Value(1));

  Value const before = root;
  EXPECT_TRUE(root.valueForPathIfExists("passwords.nothing.here").isNull());
  EXPECT_TRUE(root.valueForPathIfExists("passwords.mail.user.deeper").isNull());
  EXPECT_EQ(root, before);
}

TEST(Value, BoxedValuesAreObjectsOfTheirType) {
  Value boxed = Value::box(Fraction{1, 25});
  ASSERT_TRUE(boxed.isObject());
  ASSERT_NE(boxed.boxed<Fraction>(), nullptr);
  EXPECT_EQ(boxed.boxed<Fraction>()->denominator, 25);
  EXPECT_EQ(boxed.boxed<int>(), nullptr);
  EXPECT_EQ(Value(3).boxed<Fraction>(), nullptr);
  EXPECT_EQ(boxed.toString(), "1/25");
  EXPECT_NE(Value::box(Fraction{1, 25}), boxed);  // another object, another key
}

TEST(Value, ToStringRendersEveryKind) {
  Value v = Value::map({{"s", "a\"b\n"},
                        {"n", Value()},
                        {"list", Value::array({1, -2, 2.5, true})},
                        {"bytes", Value(ByteArray{0xde, 0xad})},
                        {Value(7), Value::map()}});
  EXPECT_EQ(v.toString(),
            "{7: {}, \"bytes\": <2 bytes: dead>, \"list\": [1, -2, 2.5, true], \"n\": null, "
            "\"s\": \"a\\\"b\\n\"}");
  EXPECT_EQ(Value("\x01").toString(), "\"\\u0001\"");
}

TEST(Value, TextAndIntegerKeysAreFoundInSmallAndLargeMixedMaps) {
  for (int size : {3, 40}) {
    Value map = Value::map();
    for (int i = 0; i < size; ++i) {
      map[Value(i * 2)] = i;
      map[Value(fmt::format("k{:02}", i))] = -i;
    }
    map[Value(true)] = "boolean";
    map[Value::array({1})] = "array";
    for (int i = 0; i < size; ++i) {
      EXPECT_EQ(map.at(i * 2), Value(i));
      EXPECT_FALSE(map.contains(i * 2 + 1));
      fn::String key = fmt::format("k{:02}", i);
      EXPECT_EQ(map.at(key.c_str()), Value(-i));
      EXPECT_EQ(map.get(key.c_str()), map.get(Value(key)));
    }
    EXPECT_FALSE(map.contains("k"));
    EXPECT_FALSE(map.contains("zz"));
    EXPECT_THROW(map.at("absent"), RangeException);
    EXPECT_EQ(map.get("absent", Value(7)), Value(7));
    EXPECT_EQ(map.get(Value(true)), Value("boolean"));
  }
}

}  // namespace
}  // namespace fn

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

TEST(Value, IntegersAreOneKeyStayExactAndConvertOnlyWithinRange) {
  // 1 in the unsigned 8-bit wire form is the same key as 1 from anywhere else.
  Value decoded = mpack::decode(ByteArray{0xcc, 0x01}.data(), 2);
  Value map = Value::map({{1, "one"}});
  map[Value(1u)] = "uno";
  map[decoded] = "eins";
  EXPECT_EQ(map, Value::map({{1, "eins"}}));

  Value big(U64_MAX);
  EXPECT_EQ(big.type(), Value::Type::UnsignedInteger);
  EXPECT_EQ(Value(static_cast<uint64_t>(I64_MAX)).type(), Value::Type::Integer);
  EXPECT_NE(big, Value(-1));
  EXPECT_LT(Value(I64_MAX), Value(static_cast<uint64_t>(I64_MAX) + 1));
  EXPECT_EQ(big.toString(), "18446744073709551615");
  // Neither side may wrap into the other's range.
  EXPECT_EQ(Value(65535).to<uint16_t>(), 65535);
  for (Value v : {Value(65536), Value(-1), Value(U64_MAX), Value("7")})
    EXPECT_THROW(v.to<uint16_t>(), RangeException) << v.toString();
  EXPECT_THROW(big.asInt(), RangeException);
  EXPECT_THROW(Value(-1).asUInt(), RangeException);
  EXPECT_THROW(Value(1e300).asInt(), RangeException);
}

TEST(Value, MapKeepsKeysOrderedAndReportsWhatIsMissing) {
  Value map;
  for (Value key :
       {Value("b"), Value(3), Value("a"), Value(true), Value(), Value(ByteArray{1}), Value(-5)})
    map[key] = 1;
  std::vector<Value> keys;
  for (auto const& [key, item] : map.asMap())
    keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<Value>{Value(), Value(true), Value(-5), Value(3), Value("a"),
                                      Value("b"), Value(ByteArray{1})}));
  EXPECT_EQ(map.erase("b"), 1u);
  EXPECT_EQ(map.erase("b"), 0u);
  // NaN is a usable key too.
  double nan = std::numeric_limits<double>::quiet_NaN();
  map[Value(nan)] = 1;
  map[Value(nan)] = 2;
  EXPECT_EQ(map.size(), 7u);
  EXPECT_EQ(map.at(Value(nan)), Value(2));

  try {
    map.at("absent");
    FAIL() << "no exception";
  } catch (RangeException const& e) {
    EXPECT_EQ(e.info().detail, String("\"absent\""));
  }
  EXPECT_THROW(Value(5).at("a"), RangeException);
  EXPECT_THROW(Value::array({1}).element(1), RangeException);
  EXPECT_EQ(Value(5).get("a", Value(42)), Value(42));
}

TEST(Value, ToStringRendersEveryKind) {
  Value v = Value::map({{"s", "a\"b\n\x01"},
                        {"n", Value()},
                        {"list", Value::array({1, -2, 2.5, true})},
                        {"bytes", Value(ByteArray{0xde, 0xad})},
                        {Value(7), Value::map()}});
  EXPECT_EQ(v.toString(),
            "{7: {}, \"bytes\": <2 bytes: dead>, \"list\": [1, -2, 2.5, true], "
            "\"n\": null, \"s\": \"a\\\"b\\n\\u0001\"}");
}

TEST(Value, TextAndIntegerKeysAreFoundInSmallAndLargeMixedMaps) {
  for (int size : {3, 40}) {
    Value map = Value::map({{true, "boolean"}, {Value::array({1}), "array"}});
    for (int i = 0; i < size; ++i) {
      map[Value(i * 2)] = i;
      map[Value(fmt::format("k{:02}", i))] = -i;
    }
    for (int i = 0; i < size; ++i) {
      EXPECT_EQ(map.at(i * 2), Value(i));
      EXPECT_FALSE(map.contains(i * 2 + 1));
      EXPECT_EQ(map.at(fmt::format("k{:02}", i).c_str()), Value(-i));
    }
    EXPECT_FALSE(map.contains("k"));
    EXPECT_FALSE(map.contains("zz"));
    EXPECT_EQ(map.get(Value(true)), Value("boolean"));
  }
}

}  // namespace
}  // namespace fn

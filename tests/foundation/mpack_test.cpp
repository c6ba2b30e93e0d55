#include "foundation/mpack.h"

#include <gtest/gtest.h>

#include <limits>

#include "support.h"

namespace fn {
namespace {

ByteArray encoded(Value const& value) {
  ByteArray bytes;
  mpack::encode(value, bytes);
  return bytes;
}

Value decoded(ByteArray const& bytes) {
  return mpack::decode(bytes.data(), bytes.size());
}

TEST(MessagePack, EveryKindRoundTripsInTheStandardWireForm) {
  constexpr auto I64_MAX = std::numeric_limits<int64_t>::max();
  Value nested = Value::map({{1, Value::array({"a", ByteArray{1}, Value::map({{-7, 2.5}})})},
                             {Value::array({1, 2}), "array key"}});
  Value all = Value::array({Value(), true, -33, 128, -I64_MAX - 1, uint64_t{I64_MAX} + 1, 0.1,
                            String(300, 'x'), ByteArray(70000, 0xab), Value::map(), nested});
  Value back = decoded(encoded(all));
  EXPECT_EQ(back, all);
  for (size_t i = 0; i < all.size(); ++i)
    EXPECT_EQ(back.element(i).type(), all.element(i).type()) << i;
  std::vector<std::pair<Value, ByteArray>> forms{
      {Value::map({{1, 4}}), {0x81, 0x01, 0x04}},
      {-1, {0xff}},
      {200, {0xcc, 0xc8}},
      {-200, {0xd1, 0xff, 0x38}},
      {std::numeric_limits<uint64_t>::max(),
       {0xcf, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
      {1.5, {0xcb, 0x3f, 0xf8, 0, 0, 0, 0, 0, 0}},
      {Value::array({Value(), true, false}), {0x93, 0xc0, 0xc3, 0xc2}},
      {"ab", {0xa2, 'a', 'b'}},                       // text is str
      {ByteArray{'a', 'b'}, {0xc4, 0x02, 'a', 'b'}},  // bytes are bin
      // Objects travel through extension hooks (the callable object suite proves them across
      // processes); without a hook an object is written as nil.
      {Value::map({{"r", Value::box(42)}}), {0x81, 0xa1, 'r', 0xc0}},
  };
  for (auto const& [value, bytes] : forms) {
    EXPECT_EQ(encoded(value), bytes) << value.toString();
    EXPECT_EQ(decoded(bytes).type(), value.type()) << value.toString();
  }
  // Decoded into a value that held a larger map, nothing of that map remains.
  for (auto const& [value, bytes] : forms) {
    Value into = Value::map({{1, "stale"}, {"r", 2}, {"z", Value::array({3})}});
    mpack::decode(bytes.data(), bytes.size(), into);
    EXPECT_EQ(into, decoded(bytes)) << value.toString();
  }
  // A float32 from another writer reads as the same number; without a hook, an ext as null.
  EXPECT_EQ(decoded(ByteArray{0xca, 0x3f, 0xc0, 0, 0}), Value(1.5));
  EXPECT_EQ(decoded(ByteArray{0x92, 0xd5, 0x02, 0xfd, 0x04, 0x01}), Value::array({Value(), 1}));
}

TEST(MessagePack, MalformedOrTooDeepInputThrowsDataFormatException) {
  std::vector<ByteArray> inputs{
      {0xc1},                                // the never-used byte
      {0xdd, 0xff, 0xff, 0xff, 0xff},        // 4G elements announced, none there
      {0xdf, 0xff, 0xff, 0xff, 0xff, 0x01},  // 4G entries announced, one key there
      {0xc9, 0xff, 0xff, 0xff, 0xff, 0x01},  // ext with an impossible length
      {0x01, 0x02},                          // trailing byte
  };
  for (auto const& input : inputs)
    EXPECT_THROW(decoded(input), DataFormatException) << input.toHex();
  // Every prefix of a valid record is rejected.
  ByteArray valid = encoded(Value::map({{"a", Value::array({1, "xy", ByteArray{1, 2}, 2.5})}}));
  for (size_t n = 0; n < valid.size(); ++n)
    EXPECT_THROW(mpack::decode(valid.data(), n), DataFormatException) << n;

  auto nested = [](size_t depth) {
    ByteArray bytes(depth, 0x91);  // arrays of one element
    bytes.push_back(0xc0);
    return bytes;
  };
  mpack::Limits limits;
  limits.maxDepth = 16;
  EXPECT_NO_THROW(mpack::decode(nested(16).data(), 17, nullptr, limits));
  EXPECT_THROW(mpack::decode(nested(17).data(), 18, nullptr, limits), DataFormatException);
  // The default limit holds against a deep input without exhausting the stack.
  EXPECT_THROW(decoded(nested(100000)), DataFormatException);
}

TEST(MessagePack, DeserializerReadsConsecutiveValuesAndATruncatedLastOneIsAnError) {
  ByteArray stream = encoded(Value::map({{1, 4}}));
  ByteArrayOutputStream out(stream);
  mpack::Serializer(out).serialize(Value("second"));
  MemoryInputStream in(stream.data(), stream.size() - 1);
  mpack::Deserializer deserializer(in);
  EXPECT_EQ(deserializer.deserialize(), Value::map({{1, 4}}));
  EXPECT_EQ(in.remaining(), stream.size() - 4);
  EXPECT_THROW(deserializer.deserialize(), DataFormatException);
  MemoryInputStream whole(stream);
  mpack::Deserializer(whole).deserialize();
  EXPECT_EQ(mpack::Deserializer(whole).deserialize(), Value("second"));
  EXPECT_EQ(mpack::Deserializer(whole).deserialize(), std::nullopt);
}

}  // namespace
}  // namespace fn

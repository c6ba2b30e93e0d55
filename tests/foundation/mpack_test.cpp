#include "foundation/mpack.h"

#include <gtest/gtest.h>

#include <limits>

#include "support.h"

namespace fn {
namespace {

struct Fraction {
  int8_t numerator;
  int8_t denominator;
};

ByteArray encoded(Value const& value, mpack::ValueSerializer* hook = nullptr) {
  ByteArray bytes;
  mpack::encode(value, bytes, hook);
  return bytes;
}

Value decoded(ByteArray const& bytes, mpack::ValueDeserializer* hook = nullptr) {
  return mpack::decode(bytes.data(), bytes.size(), hook);
}

// Fractions travel as ext type 2: numerator and denominator, a byte each.
class FractionCodec : public mpack::ValueSerializer, public mpack::ValueDeserializer {
public:
  std::optional<int8_t> serializeObject(Value const& value, OutputStream& content) override {
    auto const* fraction = value.boxed<Fraction>();
    if (!fraction)
      return std::nullopt;
    int8_t bytes[] = {fraction->numerator, fraction->denominator};
    content.write(bytes, sizeof bytes);
    return 2;
  }

  Value deserializeExtension(int8_t typeCode, uint8_t const* data, size_t size) override {
    seen.push_back(typeCode);
    if (typeCode != 2 || size != 2)
      throw DataFormatException("Not a fraction");
    return Value::box(Fraction{static_cast<int8_t>(data[0]), static_cast<int8_t>(data[1])});
  }

  std::vector<int8_t> seen;
};

TEST(MessagePack, EveryKindRoundTrips) {
  constexpr auto I64_MAX = std::numeric_limits<int64_t>::max();
  constexpr auto U64_MAX = std::numeric_limits<uint64_t>::max();
  Value nested = Value::map({{1, Value::array({"a", ByteArray{1}, Value::map({{-7, 2.5}})})},
                             {"nested", Value::map({{"deeper", Value::array({Value(), true})}})},
                             {Value::array({1, 2}), "array key"}});
  std::vector<Value> values{Value(), true, false, 0, -1, -33, 127, 128, -I64_MAX - 1, I64_MAX};
  values.insert(values.end(), {uint64_t{I64_MAX} + 1, U64_MAX, 0.1, -1e300, "", String(300, 'x')});
  values.insert(values.end(),
                {ByteArray{}, ByteArray(70000, 0xab), Value::array(), Value::map(), nested});
  for (auto const& value : values) {
    Value back = decoded(encoded(value));
    EXPECT_EQ(back, value) << value.toString();
    EXPECT_EQ(back.type(), value.type()) << value.toString();
  }
}

TEST(MessagePack, WireFormIsStandardMessagePack) {
  EXPECT_EQ(encoded(Value::map({{1, 4}})), (ByteArray{0x81, 0x01, 0x04}));
  EXPECT_EQ(encoded(Value(-1)), ByteArray{0xff});
  EXPECT_EQ(encoded(Value(200)), (ByteArray{0xcc, 0xc8}));
  EXPECT_EQ(encoded(Value(-200)), (ByteArray{0xd1, 0xff, 0x38}));
  EXPECT_EQ(encoded(Value(std::numeric_limits<uint64_t>::max())),
            (ByteArray{0xcf, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}));
  EXPECT_EQ(encoded(Value(1.5)), (ByteArray{0xcb, 0x3f, 0xf8, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(encoded(Value::array({Value(), true, false})), (ByteArray{0x93, 0xc0, 0xc3, 0xc2}));
  // Text is str, bytes are bin, and each reads back as its own kind.
  EXPECT_EQ(encoded(Value("ab")), (ByteArray{0xa2, 'a', 'b'}));
  EXPECT_EQ(encoded(Value(ByteArray{'a', 'b'})), (ByteArray{0xc4, 0x02, 'a', 'b'}));
  EXPECT_TRUE(decoded(ByteArray{0xa2, 'a', 'b'}).isString());
  EXPECT_TRUE(decoded(ByteArray{0xc4, 0x02, 'a', 'b'}).isByteArray());
  // A float32 from another writer reads as the same number.
  EXPECT_EQ(decoded(ByteArray{0xca, 0x3f, 0xc0, 0, 0}), Value(1.5));

  Value map = decoded(encoded(Value::map({{1, "int key"}, {"1", "text key"}})));
  EXPECT_EQ(map.size(), 2u);
  EXPECT_EQ(map.at(1), Value("int key"));
  EXPECT_EQ(map.asMap().begin()->first.type(), Value::Type::Integer);
}

TEST(MessagePack, ExtensionHooksCarryTypeCodeAndContent) {
  FractionCodec codec;
  Value record = Value::map({{"ratio", Value::box(Fraction{-3, 4})}});
  ByteArray bytes = encoded(record, &codec);
  // fixext 2 (0xd5), type 2, then the content the hook wrote.
  EXPECT_EQ(bytes, (ByteArray{0x81, 0xa5, 'r', 'a', 't', 'i', 'o', 0xd5, 0x02, 0xfd, 0x04}));

  Value back = decoded(bytes, &codec);
  ASSERT_NE(back.at("ratio").boxed<Fraction>(), nullptr);
  EXPECT_EQ(back.at("ratio").boxed<Fraction>()->numerator, -3);
  EXPECT_EQ(back.at("ratio").boxed<Fraction>()->denominator, 4);
  EXPECT_EQ(codec.seen, std::vector<int8_t>{2});

  // Without a hook, or for an object the hook does not know, an object is written as nil;
  // an ext value read without a hook is null.
  EXPECT_EQ(encoded(record), encoded(Value::map({{"ratio", Value()}})));
  EXPECT_EQ(encoded(Value::box(42), &codec), ByteArray{0xc0});
  EXPECT_TRUE(decoded(bytes).at("ratio").isNull());

  // A hook that rejects the content turns into a format error.
  ByteArray wrongCode = bytes;
  wrongCode[8] = 0x05;
  EXPECT_THROW(decoded(wrongCode, &codec), DataFormatException);
  EXPECT_EQ(codec.seen.back(), 5);
}

TEST(MessagePack, MalformedOrTooDeepInputThrowsDataFormatException) {
  std::vector<ByteArray> inputs{
      {},                                    // nothing
      {0xc1},                                // the never-used byte
      {0x92, 0x01},                          // array missing an element
      {0xa5, 'a', 'b'},                      // truncated text
      {0xc5, 0xff},                          // truncated length
      {0xcf, 0x00, 0x01},                    // truncated uint64
      {0xdd, 0xff, 0xff, 0xff, 0xff},        // 4G elements announced, none there
      {0xdf, 0xff, 0xff, 0xff, 0xff, 0x01},  // 4G entries announced, one key there
      {0xc9, 0xff, 0xff, 0xff, 0xff, 0x01},  // ext with an impossible length
      {0x01, 0x02},                          // trailing byte
      {0x80, 0x80},                          // trailing value
  };
  for (auto const& input : inputs)
    EXPECT_THROW(decoded(input), DataFormatException) << input.toHex();

  // Every prefix of a valid record is rejected.
  ByteArray valid = encoded(Value::map({{"a", Value::array({1, "xy", ByteArray{1, 2}, 2.5})}}));
  for (size_t n = 0; n < valid.size(); ++n)
    EXPECT_THROW(mpack::decode(valid.data(), n), DataFormatException) << n;

  // Nesting beyond the limit.
  auto nested = [](size_t depth) {
    ByteArray bytes(depth, 0x91);  // arrays of one element
    bytes.push_back(0xc0);
    return bytes;
  };
  mpack::Limits limits;
  limits.maxDepth = 16;
  ByteArray atLimit = nested(16);
  ByteArray beyond = nested(17);
  EXPECT_NO_THROW(mpack::decode(atLimit.data(), atLimit.size(), nullptr, limits));
  EXPECT_THROW(mpack::decode(beyond.data(), beyond.size(), nullptr, limits), DataFormatException);
  // The default limit holds against a deep input without exhausting the stack.
  EXPECT_THROW(decoded(nested(100000)), DataFormatException);
}

TEST(MessagePack, DeserializerReadsConsecutiveValues) {
  FractionCodec codec;
  ByteArray stream;
  ByteArrayOutputStream out(stream);
  mpack::Serializer serializer(out, &codec);
  serializer.serialize(Value::map({{1, 4}}));
  serializer.serialize(Value("second"));
  serializer.serialize(Value::box(Fraction{1, 2}));

  MemoryInputStream in(stream);
  mpack::Deserializer deserializer(in, &codec);
  EXPECT_EQ(deserializer.deserialize(), Value::map({{1, 4}}));
  EXPECT_EQ(in.remaining(), stream.size() - 3);
  EXPECT_EQ(deserializer.deserialize(), Value("second"));
  auto third = deserializer.deserialize();
  ASSERT_TRUE(third);
  ASSERT_NE(third->boxed<Fraction>(), nullptr);
  EXPECT_EQ(third->boxed<Fraction>()->denominator, 2);
  EXPECT_EQ(deserializer.deserialize(), std::nullopt);

  // A truncated last value is an error, not the end.
  ByteArray cut(stream.begin(), stream.end() - 1);
  MemoryInputStream cutIn(cut);
  mpack::Deserializer cutReader(cutIn, &codec);
  EXPECT_TRUE(cutReader.deserialize());
  EXPECT_TRUE(cutReader.deserialize());
  EXPECT_THROW(cutReader.deserialize(), DataFormatException);
}

}  // namespace
}  // namespace fn

#include "core/typed_byte_array.h"

#include <gtest/gtest.h>

#include "core/property_container.h"
#include "foundation/exception.h"
#include "foundation/mpack.h"

namespace core {
namespace {

TEST(TypedByteArray, ConstructionAndText) {
  TypedByteArray zeros(3);
  EXPECT_EQ(zeros.bytes(), fn::ByteArray({0, 0, 0}));
  EXPECT_TRUE(zeros.mimeType().empty());
  EXPECT_EQ(zeros.toString(), fn::ByteArray({0, 0, 0}).toString());

  TypedByteArray typed(fn::ByteArray{1, 2}, "image/png");
  EXPECT_EQ(typed.toString(), "image/png " + fn::ByteArray({1, 2}).toString());
  typed.setMimeType("image/jpeg");
  EXPECT_EQ(typed.mimeType(), "image/jpeg");
  EXPECT_TRUE(TypedByteArray(fn::String("text/plain")).bytes().empty());
}

TEST(TypedByteArray, StreamFormIsStringThenBinary) {
  TypedByteArray typed(fn::ByteArray{0xff, 0, 7}, "application/octet-stream");
  fn::ByteArray bytes;
  fn::ByteArrayOutputStream out(bytes);
  typed.serialize(out);

  fn::MemoryInputStream raw(bytes);
  fn::mpack::Deserializer reader(raw);
  EXPECT_EQ(reader.deserialize(), fn::Value("application/octet-stream"));
  EXPECT_EQ(reader.deserialize(), fn::Value(fn::ByteArray{0xff, 0, 7}));

  fn::MemoryInputStream in(bytes);
  EXPECT_EQ(TypedByteArray::deserialize(in), typed);

  fn::ByteArray wrong;
  fn::mpack::encode(fn::Value("image/png"), wrong);
  fn::mpack::encode(fn::Value("not bytes"), wrong);
  fn::MemoryInputStream wrongIn(wrong);
  try {
    TypedByteArray::deserialize(wrongIn);
    FAIL() << "a string in place of the bytes must be rejected";
  } catch (fn::RangeException const& e) {
    EXPECT_EQ(e.message(), "Invalid boxed type");
    ASSERT_TRUE(e.info().detail.has_value());
    EXPECT_NE(e.info().detail->find("not bytes"), fn::String::npos);
  }
}

class MapContainer : public SimplePropertyContainer {
protected:
  PropertyMap const& propertyMap() const override { return _map; }
  PropertyMap& propertyMap() override { return _map; }

private:
  PropertyMap _map;
};

TEST(SimplePropertyContainer, StoresListsAndRemovesProperties) {
  MapContainer container;
  fn::Value fallback(42);
  EXPECT_EQ(&container.property("missing", fallback), &fallback);
  EXPECT_FALSE(container.hasProperty("b"));

  container.setProperty("b", fn::Value("text"));
  container.setProperty("a", fn::Value(1));
  container.setProperty("a", fn::Value(2));
  EXPECT_EQ(container.propertyNames(), (std::vector<fn::String>{"a", "b"}));
  EXPECT_EQ(container.property("a"), fn::Value(2));
  EXPECT_TRUE(container.hasProperty("b", fn::Value::Type::String));
  EXPECT_FALSE(container.hasProperty("b", fn::Value::Type::Integer));
  EXPECT_FALSE(container.hasProperty("c", fn::Value::Type::Null));

  container.removeProperty("b");
  container.removeProperty("never there");
  EXPECT_EQ(container.propertyNames(), std::vector<fn::String>{"a"});
}

}  // namespace
}  // namespace core

#include "core/typed_byte_array.h"

#include <gtest/gtest.h>

#include "core/property_container.h"
#include "foundation/exception.h"
#include "foundation/mpack.h"

namespace core {
namespace {

TEST(TypedByteArray, TextAndStreamFormsNameTheMimeTypeFirst) {
  EXPECT_EQ(TypedByteArray(3).toString(), fn::ByteArray({0, 0, 0}).toString());
  EXPECT_EQ(TypedByteArray(fn::ByteArray{1, 2}, "image/png").toString(),
            "image/png " + fn::ByteArray({1, 2}).toString());
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

struct MapContainer : SimplePropertyContainer {
  PropertyMap _map;
  PropertyMap const& propertyMap() const override { return _map; }
  PropertyMap& propertyMap() override { return _map; }
};

TEST(SimplePropertyContainer, MissingPropertiesAndKindsAreTold) {
  MapContainer container;
  fn::Value fallback(42);
  EXPECT_EQ(&container.property("missing", fallback), &fallback);
  container.setProperty("b", fn::Value("text"));
  container.setProperty("a", fn::Value(1));
  EXPECT_TRUE(container.hasProperty("b", fn::Value::Type::String));
  EXPECT_FALSE(container.hasProperty("b", fn::Value::Type::Integer));
  EXPECT_FALSE(container.hasProperty("c", fn::Value::Type::Null));
  container.removeProperty("b");
  container.removeProperty("never there");
  EXPECT_EQ(container.propertyNames(), std::vector<fn::String>{"a"});
}

}  // namespace
}  // namespace core

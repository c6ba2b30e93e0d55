#include "foundation/json.h"

#include <gtest/gtest.h>

#include "foundation/exception.h"

namespace fn {
namespace {

// The pretty form and the hooks for tagged kinds are proven through files by the preferences
// suite; here, what other writers may hand us and what has no JSON form.
TEST(Json, ObjectsAreSortedTheLastRepeatedNameWinsAndNumbersKeepTheirKinds) {
  Value parsed = json::deserialize(R"({"b": 1, "a": 2, "c": {"z": 0, "y": 1}, "b": 3, "a": 4})");
  EXPECT_EQ(parsed, Value::map({{"a", 4}, {"b", 3}, {"c", Value::map({{"y", 1}, {"z", 0}})}}));

  parsed = json::deserialize(R"([1, 1.0, 0.1, 18446744073709551615])");
  EXPECT_TRUE(parsed.element(0).is(Value::Type::Integer));
  EXPECT_TRUE(parsed.element(1).is(Value::Type::Double));
  EXPECT_TRUE(parsed.element(3).is(Value::Type::UnsignedInteger));
  ByteArray bytes;
  ByteArrayOutputStream stream(bytes);
  json::serialize(parsed, stream, false);
  EXPECT_EQ(bytes.view(), "[1,1.0,0.1,18446744073709551615]");
  EXPECT_EQ(json::deserialize(bytes.view()), parsed);
  EXPECT_THROW(json::deserialize("1e400"), DataFormatException);
  for (Value bad : {Value::map({{1, 2}}), Value(ByteArray{1}), Value::box(5), Value("\xff")})
    EXPECT_THROW(json::serialize(bad, stream, false), DataFormatException) << bad.toString();
}

TEST(Json, MalformedOrHostileTextFailsWithThePath) {
  for (std::string_view text : {"", "[1,]", "{\"a\" 1}", "1 2", "\"\xff\"", "nul"}) {
    try {
      json::deserialize(text, nullptr, "/some/file");
      ADD_FAILURE() << "accepted " << text;
    } catch (DataFormatException const& e) {
      EXPECT_EQ(e.message(), "Malformed JSON");
      EXPECT_EQ(e.info().path, String("/some/file"));
    }
  }
  std::string deep(json::MAX_DEPTH + 1, '[');
  deep += std::string(json::MAX_DEPTH + 1, ']');
  EXPECT_THROW(json::deserialize(deep), DataFormatException);
  EXPECT_NO_THROW(json::deserialize(deep.substr(1, deep.size() - 2)));
}

}  // namespace
}  // namespace fn

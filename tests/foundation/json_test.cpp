#include "foundation/json.h"

#include <gtest/gtest.h>

#include "foundation/exception.h"

namespace fn {
namespace {

String toText(Value const& value, bool pretty, json::ValueSerializer* hook = nullptr) {
  ByteArray bytes;
  ByteArrayOutputStream stream(bytes);
  json::serialize(value, stream, pretty, hook);
  return String(bytes.view());
}

TEST(Json, PrettyFormUsesCrLfAndOneTabPerLevel) {
  Value value = Value::map({{"b", Value::array({1, Value::map({{"c", "line\nfeed"}})})},
                            {"a", Value::map()},
                            {"u", uint64_t(18446744073709551615u)}});
  EXPECT_EQ(toText(value, true),
            "{\r\n\t\"a\": {},\r\n\t\"b\": [\r\n\t\t1,\r\n\t\t{\r\n\t\t\t\"c\": \"line\\nfeed\"\r\n"
            "\t\t}\r\n\t],\r\n\t\"u\": 18446744073709551615\r\n}");
  EXPECT_EQ(toText(value, false),
            R"({"a":{},"b":[1,{"c":"line\nfeed"}],"u":18446744073709551615})");
  EXPECT_EQ(json::deserialize(toText(value, true)), value);
  // Values without a JSON form are rejected.
  for (Value bad :
       {Value::map({{1, 2}}), Value(ByteArray{1}), Value::box(5), Value(String("\xff"))})
    EXPECT_THROW(toText(bad, false), DataFormatException) << bad.toString();
}

TEST(Json, ObjectsAreSortedTheLastRepeatedNameWinsAndNumbersKeepTheirKinds) {
  Value parsed = json::deserialize(R"({"b": 1, "a": 2, "c": {"z": 0, "y": 1}, "b": 3, "a": 4})");
  EXPECT_EQ(parsed, Value::map({{"a", 4}, {"b", 3}, {"c", Value::map({{"y", 1}, {"z", 0}})}}));
  EXPECT_EQ(parsed.asMap().begin()->first, Value("a"));

  parsed = json::deserialize(R"([1, 1.0, 0.1, 18446744073709551615])");
  EXPECT_TRUE(parsed.element(0).is(Value::Type::Integer));
  EXPECT_TRUE(parsed.element(1).is(Value::Type::Double));
  EXPECT_EQ(json::deserialize(toText(parsed.element(2), false)), Value(0.1));
  EXPECT_TRUE(parsed.element(3).is(Value::Type::UnsignedInteger));
  EXPECT_THROW(json::deserialize("1e400"), DataFormatException);
}

// Writes byte arrays as their size; reads every number doubled and lists what it saw.
struct Doubler : json::ValueSerializer, json::ValueDeserializer {
  bool canSerialize(Value const& value) const override { return value.isByteArray(); }
  Value serializeValue(Value const& value) override { return value.asByteArray().size(); }
  Value deserializeValue(Value value) override {
    seen.push_back(value.toString());
    return value.isInteger() ? Value(value.asInt() * 2) : value;
  }
  std::vector<String> seen;
};

TEST(Json, HooksSeeEveryValueInnermostFirst) {
  Doubler hook;
  EXPECT_EQ(toText(Value::array({ByteArray{1, 2, 3}}), false, &hook), "[3]");
  Value parsed = json::deserialize(R"({"a": [1, {"b": 2}]})", &hook);
  EXPECT_EQ(hook.seen, (std::vector<String>{"1", "2", R"({"b": 4})", R"([2, {"b": 4}])",
                                            R"({"a": [2, {"b": 4}]})"}));
}

TEST(Json, MalformedOrHostileTextFailsWithThePath) {
  std::string deep(json::MAX_DEPTH + 1, '[');
  deep += std::string(json::MAX_DEPTH + 1, ']');
  for (std::string_view text : {"", "[1,]", "{\"a\" 1}", "1 2", "\"\xff\"", "nul"}) {
    try {
      json::deserialize(text, nullptr, "/some/file");
      ADD_FAILURE() << "accepted " << text;
    } catch (DataFormatException const& e) {
      EXPECT_EQ(e.message(), "Malformed JSON");
      EXPECT_EQ(e.info().path, String("/some/file"));
    }
  }
  EXPECT_THROW(json::deserialize(deep), DataFormatException);
  EXPECT_NO_THROW(json::deserialize(deep.substr(1, deep.size() - 2)));
}

}  // namespace
}  // namespace fn

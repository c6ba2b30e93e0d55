#include "core/inspection_result.h"

#include <gtest/gtest.h>

namespace core {
namespace {

TEST(InspectionResult, ItemsWithoutActionsTravelAsPlainTextAndRedirectsAsTheirActionOnly) {
  InspectionResult result;
  InspectionResultWriter(result).append("uptime 5 s").append("streams", "streams").append("", 7);
  fn::Value serialized = result.serialize();
  EXPECT_EQ(
      serialized,
      fn::Value::map(
          {{"items", fn::Value::array({"uptime 5 s",
                                       fn::Value::map({{"text", "streams"}, {"action", "streams"}}),
                                       fn::Value::map({{"text", ""}, {"action", 7}})})}}));
  EXPECT_EQ(InspectionResult::deserialize(serialized), result);

  // A redirect's items would never be shown, so they are not sent.
  InspectionResult redirect = InspectionResult::redirectTo(fn::Value::map({{"stream", 3}}));
  InspectionResultWriter(redirect).append("left behind");
  EXPECT_EQ(redirect.serialize(),
            fn::Value::map({{"redirectAction", fn::Value::map({{"stream", 3}})}}));
  redirect.items.clear();
  EXPECT_EQ(InspectionResult::deserialize(redirect.serialize()), redirect);
}

TEST(InspectionResult, ReadingSkipsWhatDoesNotFit) {
  for (fn::Value const& odd : {fn::Value(), fn::Value("items"), fn::Value::map({{"items", "a"}})})
    EXPECT_EQ(InspectionResult::deserialize(odd), InspectionResult()) << odd.toString();
  InspectionResult result = InspectionResult::deserialize(fn::Value::map(
      {{"items", fn::Value::array({"first", 42, fn::Value(), fn::Value::array({"nested"}),
                                   fn::Value::map({{"action", 1}}),
                                   fn::Value::map({{"text", 5}, {"action", "x"}}), "last"})}}));
  EXPECT_EQ(result.items, (std::vector<Item>{{"first"}, {"", 1}, {"", "x"}, {"last"}}));
  EXPECT_FALSE(result.items[0].hasAction());
}

}  // namespace
}  // namespace core

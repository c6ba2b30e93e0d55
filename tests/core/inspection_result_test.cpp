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
  InspectionResult back = InspectionResult::deserialize(redirect.serialize());
  EXPECT_TRUE(back.redirect);
  EXPECT_EQ(back.redirectAction, fn::Value::map({{"stream", 3}}));
  EXPECT_TRUE(back.items.empty());
  EXPECT_TRUE(InspectionResult().serialize() == fn::Value::map({{"items", fn::Value::array()}}));
}

TEST(InspectionResult, ReadingSkipsWhatDoesNotFit) {
  for (fn::Value const& odd : {fn::Value(), fn::Value("items"), fn::Value::array({"a"}),
                               fn::Value::map({{"items", "a"}})}) {
    InspectionResult result = InspectionResult::deserialize(odd);
    EXPECT_FALSE(result.redirect) << odd.toString();
    EXPECT_TRUE(result.items.empty()) << odd.toString();
  }
  InspectionResult result = InspectionResult::deserialize(fn::Value::map(
      {{"items", fn::Value::array({"first", 42, fn::Value(), fn::Value::array({"nested"}),
                                   fn::Value::map({{"action", 1}}),
                                   fn::Value::map({{"text", 5}, {"action", "x"}}), "last"})}}));
  ASSERT_EQ(result.items.size(), 4u);
  EXPECT_EQ(result.items[0], Item("first"));
  EXPECT_FALSE(result.items[0].hasAction());
  EXPECT_EQ(result.items[1], Item("", 1));
  EXPECT_EQ(result.items[2], Item("", "x"));
  EXPECT_EQ(result.items[3], Item("last"));
}

}  // namespace
}  // namespace core

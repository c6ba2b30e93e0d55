#include "core/inspection_result.h"

#include <gtest/gtest.h>

namespace core {
namespace {

TEST(InspectionResult, ItemsWithoutActionsTravelAsPlainTextAndOddItemsAreSkipped) {
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

  for (fn::Value const& odd : {fn::Value(), fn::Value("items"), fn::Value::map({{"items", "a"}})})
    EXPECT_EQ(InspectionResult::deserialize(odd), InspectionResult()) << odd.toString();
  result = InspectionResult::deserialize(fn::Value::map(
      {{"items", fn::Value::array({"first", 42, fn::Value(), fn::Value::array({"nested"}),
                                   fn::Value::map({{"action", 1}}),
                                   fn::Value::map({{"text", 5}, {"action", "x"}}), "last"})}}));
  EXPECT_EQ(result.items, (std::vector<Item>{{"first"}, {"", 1}, {"", "x"}, {"last"}}));
}

}  // namespace
}  // namespace core

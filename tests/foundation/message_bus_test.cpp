#include "foundation/message_bus.h"

#include <gtest/gtest.h>

#include <vector>

#include "support.h"

namespace fn {
namespace {

// Delivery across processes, sticky messages and their replay are proven by the IPC bus suite,
// which runs on this bus; here, the ordering and lifetime rules within one process.
TEST(MessageBus, PostedToTheNamespaceOnlyNewListenersHearLaterMessagesCancelledNothing) {
  uv::Loop loop;
  std::vector<String> heard;
  Handle inner, cancelled, kept;
  auto bus = std::make_unique<MessageBus>();
  Handle outer = bus->listen("tuner", [&](String const& name, Value const& v) {
    heard.push_back(fmt::format("outer {} {}", name, v.toString()));
    if (!inner.valid())
      inner = bus->listen("tuner", [&](String const&, Value const& value) {
        heard.push_back("inner " + value.toString());
      });
  });
  Handle other = bus->listen("epg", [&](String const&, Value const&) { heard.push_back("epg"); });
  cancelled =
      bus->listen("tuner", [&](String const&, Value const&) { heard.push_back("cancelled"); });
  bus->post("tuner", Value(1));
  cancelled.invalidate();      // after the post: the delivery on its way must not arrive
  EXPECT_TRUE(heard.empty());  // posted, not synchronous
  ASSERT_TRUE(testing::runLoopUntil(loop, [&] { return heard.size() == 1; }));
  bus->post("tuner", Value(2));
  ASSERT_TRUE(testing::runLoopUntil(loop, [&] { return heard.size() == 3; }));
  EXPECT_EQ(heard, (std::vector<String>{"outer tuner 1", "outer tuner 2", "inner 2"}));

  // The bus is gone with a delivery posted: it finds the subscription ended.
  bus->post("tuner", Value(3));
  bus.reset();
  bool settled = false;
  Handle marker = loop.schedule(Duration::milliseconds(20), [&] { settled = true; });
  ASSERT_TRUE(testing::runLoopUntil(loop, [&] { return settled; }));
  EXPECT_EQ(heard.size(), 3u);
}

}  // namespace
}  // namespace fn

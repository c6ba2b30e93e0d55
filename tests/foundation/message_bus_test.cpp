#include "foundation/message_bus.h"

#include <gtest/gtest.h>

#include <vector>

#include "support.h"

namespace fn {
namespace {

using Heard = std::vector<std::pair<String, Value>>;

TEST(MessageBus, DeliversPostedToTheListenersOfTheNamespaceOnly) {
  uv::Loop loop;
  MessageBus bus;
  Heard a, b, other;
  Handle ha = bus.listen("tuner", [&](String const& n, Value const& v) { a.emplace_back(n, v); });
  Handle hb = bus.listen("tuner", [&](String const& n, Value const& v) { b.emplace_back(n, v); });
  Handle ho = bus.listen("epg", [&](String const& n, Value const& v) { other.emplace_back(n, v); });

  bus.post("tuner", Value(1));
  bus.post("tuner", Value::map({{"channel", 7}}));
  // Posted, not synchronous.
  EXPECT_TRUE(a.empty());
  EXPECT_TRUE(b.empty());

  ASSERT_TRUE(testing::runLoopUntil(loop, [&] { return a.size() == 2 && b.size() == 2; }));
  EXPECT_EQ(a, (Heard{{"tuner", Value(1)}, {"tuner", Value::map({{"channel", 7}})}}));
  EXPECT_EQ(a, b);
  EXPECT_TRUE(other.empty());
  EXPECT_FALSE(bus.getStickyMessage("tuner").has_value());
  // Sticky messages, their replay to late listeners included, are proven across processes
  // by the IPC bus suite, which runs on this bus.
}

TEST(MessageBus, CancelledSubscriptionsAndDestroyedBusesDeliverNothing) {
  uv::Loop loop;
  int heard = 0, kept = 0;
  Handle keptHandle;
  {
    MessageBus bus;
    Handle h = bus.listen("x", [&](String const&, Value const&) { ++heard; });
    keptHandle = bus.listen("x", [&](String const&, Value const&) { ++kept; });
    bus.post("x", Value(1));
    h.invalidate();  // after the post: the delivery on its way must not arrive
    bus.post("x", Value(2));
  }
  // The bus is gone with two deliveries to `kept` posted: they find the subscription ended.
  bool settled = false;
  Handle marker = loop.schedule(Duration::milliseconds(20), [&] { settled = true; });
  ASSERT_TRUE(testing::runLoopUntil(loop, [&] { return settled; }));
  EXPECT_EQ(heard, 0);
  EXPECT_EQ(kept, 0);
}

TEST(MessageBus, AListenerSubscribedDuringADeliveryHearsOnlyLaterMessages) {
  uv::Loop loop;
  MessageBus bus;
  std::vector<int> inner;
  Handle innerHandle;
  int outer = 0;
  Handle h = bus.listen("x", [&](String const&, Value const&) {
    if (++outer == 1)
      innerHandle =
          bus.listen("x", [&](String const&, Value const& v) { inner.push_back(v.asInt()); });
  });
  bus.post("x", Value(1));
  ASSERT_TRUE(testing::runLoopUntil(loop, [&] { return outer == 1; }));
  bus.post("x", Value(2));
  ASSERT_TRUE(testing::runLoopUntil(loop, [&] { return outer == 2 && inner.size() == 1; }));
  EXPECT_EQ(inner, (std::vector<int>{2}));
}

}  // namespace
}  // namespace fn

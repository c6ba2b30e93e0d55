#include "core/ipc/message_bus.h"

#include <algorithm>

#include "module_fixture.h"

using namespace testing_support;

namespace {

using Heard = std::vector<fn::Value>;

class BusTest : public ModuleTest {
protected:
  void SetUp() override {
    ModuleTest::SetUp();
    auto found = await(ipc::MessageBus::lookup(*worker));
    ASSERT_FALSE(found.error) << fn::describeException(found.error);
    bus = *found.value;
    ASSERT_TRUE(bus);
  }
  void TearDown() override {
    subscriptions.clear();
    bus.reset();
    ModuleTest::TearDown();
  }

  /// Collects every body posted on `name` from now on.
  std::shared_ptr<Heard> hear(fn::String const& name) {
    auto heard = std::make_shared<Heard>();
    subscriptions.push_back(bus->listen(
        name, [heard](fn::String const&, fn::Value const& body) { heard->push_back(body); }));
    return heard;
  }

  fn::AutoPtr<ipc::MessageBus> bus;
  std::vector<fn::Handle> subscriptions;
};

}  // namespace

TEST_F(BusTest, MessagesCrossProcessesBothWaysThroughTheHub) {
  auto ready = hear("test.ready");
  auto pongs = hear("test.pong");
  auto pings = hear("test.ping");
  startModule("one", {"bus"});
  startModule("two", {"bus"});
  ASSERT_TRUE(runLoopUntil(loop, [&] { return ready->size() == 2; }));

  fn::Value ping = fn::Value::map({{"n", 1}});
  bus->post("test.ping", ping);
  // Even the sender's own listeners hear it only after the trip through the hub.
  EXPECT_TRUE(pings->empty());
  ASSERT_TRUE(runLoopUntil(loop, [&] { return pongs->size() == 2 && pings->size() == 1; }));
  EXPECT_EQ(*pings, Heard{ping});
  std::ranges::sort(*pongs);
  EXPECT_EQ(*pongs, (Heard{fn::Value::map({{"from", "one"}, {"got", ping}}),
                           fn::Value::map({{"from", "two"}, {"got", ping}})}));
  // Nothing was sticky, so the hub stored nothing.
  EXPECT_TRUE(hub().messageBus()->stickyMessages().empty());

  // A module that dies leaves the others talking.
  killModule("one");
  bus->post("test.ping", fn::Value::map({{"n", 2}}));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return pongs->size() == 3 && pings->size() == 2; }));
  EXPECT_EQ(pongs->back().at("from"), fn::Value("two"));
}

TEST_F(BusTest, StickyMessagesReachAProcessThatSubscribesLater) {
  auto config = hear("test.config");
  auto other = hear("test.other");
  bus->post("test.config", 1, true);
  bus->post("test.config", 2, true);
  bus->post("test.config", 3);  // not sticky: the store keeps 2
  bus->post("test.other", "x", true);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return config->size() == 3 && other->size() == 1; }));
  EXPECT_EQ(*config, (Heard{1, 2, 3}));
  std::map<fn::String, fn::Value> stored{{"test.config", 2}, {"test.other", "x"}};
  EXPECT_EQ(hub().messageBus()->stickyMessages(), stored);

  auto heard = hear("test.heard");
  auto ready = hear("test.ready");
  startModule("late", {"bus"});
  ASSERT_TRUE(runLoopUntil(loop, [&] { return ready->size() == 1 && heard->size() == 1; }));
  // The late module fetched both stored namespaces, and its listener, subscribed after the
  // fetch, got the latest config once.
  EXPECT_EQ(heard->front().at("body"), fn::Value(2));
  EXPECT_EQ(heard->front().at("count"), fn::Value(1));
  EXPECT_EQ(heard->front().at("other"), fn::Value("x"));

  bus->post("test.config", 4, true);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return heard->size() == 2; }));
  EXPECT_EQ(heard->back().at("body"), fn::Value(4));
  EXPECT_EQ(heard->back().at("count"), fn::Value(2));

  // Fetched again here: each stored namespace is delivered once more, as sticky; straight
  // from the hub they come in namespace order.
  ASSERT_FALSE(await(bus->getStickyMessages()).error);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return config->size() == 5; }));
  EXPECT_EQ(config->back(), fn::Value(4));
  EXPECT_EQ(bus->getStickyMessage("test.other"), std::optional<fn::Value>("x"));
  auto raw = await(bus->callMethod("getStickyMessages", fn::Value()));
  ASSERT_TRUE(raw.value);
  EXPECT_EQ(*raw.value,
            fn::Value::array({fn::Value::map({{"namespace", "test.config"}, {"body", 4}}),
                              fn::Value::map({{"namespace", "test.other"}, {"body", "x"}})}));
}

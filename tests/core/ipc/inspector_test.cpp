#include "core/inspector.h"

#include <regex>

#include "core/inspector_registry.h"
#include "module_fixture.h"

using namespace testing_support;
using Items = std::vector<core::Item>;

namespace {

// The first inspector of a name is filed under the base64 SHA-256 of the name; this is the
// published digest of "abc" in base64.
constexpr char const* ABC_KEY = "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=";

class LocalInspector : public core::Inspector {
public:
  core::InspectionResult inspect(fn::Value const& action, fn::Value const&) override {
    core::InspectionResult result;
    core::InspectionResultWriter(result).append("local", action);
    return result;
  }
};

class InspectorTest : public ModuleTest {
protected:
  void SetUp() override {
    ModuleTest::SetUp();
    registry = await(core::InspectorRegistry::lookup(*worker)).value.value();
  }
  void TearDown() override {
    registry.reset();
    ModuleTest::TearDown();
  }

  // Beside the hub's own inspector.
  void awaitInspectors(size_t count) {
    EXPECT_TRUE(runLoopUntil(
        loop, [&] { return hub().inspectorRegistry()->inspectorCount() == count + 1; }))
        << "inspectors: " << hub().inspectorRegistry()->inspectorCount();
  }
  std::map<fn::String, fn::String> all() {
    auto listed = await(registry->allInspectors()).value.value();
    EXPECT_EQ(listed[fn::ByteArray(fn::String("Hub")).SHA256().base64()], "Hub");
    listed.erase(fn::ByteArray(fn::String("Hub")).SHA256().base64());
    return listed;
  }
  // Throws (and fails the test) when the call failed.
  core::InspectionResult inspect(fn::AutoPtr<core::InspectorReference> const& inspector,
                                 fn::Value const& action) {
    return await(inspector->inspect(action, fn::Value())).value.value();
  }

  fn::AutoPtr<core::InspectorRegistry> registry;
};

}  // namespace

TEST_F(InspectorTest, OneNameTwiceThenUnregisteringAndDeathRemoveEntries) {
  // A module's inspector is filed under the digest of its name.
  startModule("tuner", {"inspector=abc"});
  awaitInspectors(1);
  EXPECT_EQ(all(), (std::map<fn::String, fn::String>{{ABC_KEY, "abc"}}));
  EXPECT_EQ(inspect(await(registry->getInspector(ABC_KEY)).value.value(), "later").items,
            Items{{"answered later"}});
  // An unknown key is no error.
  EXPECT_FALSE(await(registry->getInspector("no such key")).value.value());
  fn::AutoPtr<core::Inspector> inspector(new LocalInspector);
  fn::WeakReference<core::Inspector> local(inspector);
  unsigned int id = await(registry->registerInspector("abc", inspector)).value.value();
  EXPECT_EQ(id, 1u);
  // The same inspector under another name; the registry files it under its own id 4 (after
  // the hub's own inspector, the module's and ours).
  EXPECT_EQ(await(registry->registerInspector("other", inspector)).value.value(), 2u);
  inspector.reset();
  fn::String key = registry->keyOf(id);
  EXPECT_TRUE(std::regex_match(key, std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}")))
      << key;
  auto listed = all();
  EXPECT_EQ(listed.size(), 3u);
  EXPECT_EQ(listed[key], "abc");
  EXPECT_EQ(inspect(await(registry->getInspector(key)).value.value(), 5).items,
            (Items{{"local", 5}}));

  EXPECT_FALSE(await(registry->unregisterInspector(id)).error);
  EXPECT_FALSE(all().contains(key));
  EXPECT_EQ(registry->keyOf(id), "");
  // The registry's own integer ids are accepted too; the key our reference then sends for id 2
  // is unknown by then, which is no error either.
  EXPECT_TRUE(await(registry->callMethod("unregisterInspector", 4)).value->isNull());
  awaitInspectors(1);
  EXPECT_FALSE(await(registry->unregisterInspector(2)).error);
  // Nobody holds the inspector any more: not the registry, not our registry reference.
  EXPECT_TRUE(runLoopUntil(loop, [&] { return local.expired(); }));

  killModule("tuner");
  awaitInspectors(0);
  EXPECT_TRUE(all().empty());
}

TEST_F(InspectorTest, ARegistrationCancelledBeforeItsAnswerIsWithdrawn) {
  fn::AutoPtr<core::Inspector> inspector(new LocalInspector);
  fn::WeakReference<core::Inspector> local(inspector);
  auto registering = registry->registerInspector("gone", inspector);
  inspector.reset();
  auto outcome = watch(registering);
  registering.cancel();
  // Filed and withdrawn again: then nobody holds the inspector any more.
  EXPECT_TRUE(runLoopUntil(loop, [&] { return local.expired(); }));
  EXPECT_FALSE(outcome->settled);
  EXPECT_TRUE(all().empty());
}

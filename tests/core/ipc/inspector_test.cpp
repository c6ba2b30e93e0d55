#include "core/inspector.h"

#include <regex>

#include "core/inspector_registry.h"
#include "module_fixture.h"

using namespace testing_support;

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
    auto found = await(core::InspectorRegistry::lookup(*worker));
    ASSERT_FALSE(found.error) << fn::describeException(found.error);
    registry = found.value.value();
  }
  void TearDown() override {
    registry.reset();
    ModuleTest::TearDown();
  }

  void awaitInspectors(size_t count) {
    EXPECT_TRUE(
        runLoopUntil(loop, [&] { return hub().inspectorRegistry()->inspectorCount() == count; }))
        << "inspectors: " << hub().inspectorRegistry()->inspectorCount();
  }

  std::map<fn::String, fn::String> all() { return await(registry->allInspectors()).value.value(); }

  core::InspectionResult inspect(fn::AutoPtr<core::InspectorReference> const& inspector,
                                 fn::Value const& action,
                                 fn::Value const& referer = fn::Value()) {
    auto outcome = await(inspector->inspect(action, referer));
    EXPECT_FALSE(outcome.error) << fn::describeException(outcome.error);
    return outcome.value.value_or(core::InspectionResult());
  }

  fn::AutoPtr<core::InspectorRegistry> registry;
};

}  // namespace

TEST_F(InspectorTest, AnInspectorOfAModuleIsListedFetchedAndBrowsed) {
  startModule("tuner", {"inspector=abc"});
  awaitInspectors(1);
  EXPECT_EQ(all(), (std::map<fn::String, fn::String>{{ABC_KEY, "abc"}}));

  auto inspector = await(registry->getInspector(ABC_KEY)).value.value();
  ASSERT_TRUE(inspector);
  EXPECT_FALSE(inspector->local());
  core::InspectionResult top = inspect(inspector, fn::Value());
  EXPECT_EQ(top.items, (std::vector<core::Item>{
                           {"module abc"}, {"details", "details"}, {"elsewhere", "elsewhere"}}));

  // Following an item: the deeper view sees the action the caller came from.
  core::InspectionResult details = inspect(inspector, top.items[1].action, "top");
  EXPECT_EQ(details.items, (std::vector<core::Item>{{"back", "top"}}));
  core::InspectionResult redirect = inspect(inspector, top.items[2].action);
  EXPECT_TRUE(redirect.redirect);
  EXPECT_TRUE(redirect.items.empty());
  EXPECT_EQ(inspect(inspector, redirect.redirectAction, top.items[2].action).items,
            (std::vector<core::Item>{{"back", "elsewhere"}}));
  EXPECT_EQ(inspect(inspector, "later").items, std::vector<core::Item>{{"answered later"}});

  auto unknown = await(registry->getInspector("no such key"));
  EXPECT_FALSE(unknown.error) << fn::describeException(unknown.error);
  EXPECT_FALSE(unknown.value.value());
}

TEST_F(InspectorTest, OneNameTwiceThenUnregisteringAndDeathRemoveEntries) {
  startModule("tuner", {"inspector=abc"});
  awaitInspectors(1);

  fn::WeakReference<core::Inspector> local;
  unsigned int id = 0;
  {
    fn::AutoPtr<core::Inspector> inspector(new LocalInspector);
    local = fn::WeakReference<core::Inspector>(inspector);
    id = await(registry->registerInspector("abc", inspector)).value.value();
    // The same inspector under another name, filed by the registry under its own id 3.
    EXPECT_EQ(await(registry->registerInspector("other", inspector)).value.value(), id + 1);
  }
  EXPECT_EQ(id, 1u);
  fn::String key = registry->keyOf(id);
  EXPECT_TRUE(std::regex_match(key, std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}")))
      << key;
  auto listed = all();
  EXPECT_EQ(listed.size(), 3u);
  EXPECT_EQ(listed[ABC_KEY], "abc");
  EXPECT_EQ(listed[key], "abc");

  auto mine = await(registry->getInspector(key)).value.value();
  ASSERT_TRUE(mine);
  EXPECT_TRUE(mine->local());
  EXPECT_EQ(inspect(mine, 5).items, (std::vector<core::Item>{{"local", 5}}));
  mine.reset();

  auto unregistered = await(registry->unregisterInspector(id));
  EXPECT_FALSE(unregistered.error) << fn::describeException(unregistered.error);
  EXPECT_FALSE(all().contains(key));
  EXPECT_EQ(registry->keyOf(id), "");
  EXPECT_FALSE(await(registry->unregisterInspector(id)).error);
  // The registry's own integer ids are accepted too; the key our reference then sends for id 2
  // is unknown by then, which is no error either.
  EXPECT_TRUE(await(registry->callMethod("unregisterInspector", 3)).value->isNull());
  awaitInspectors(1);
  EXPECT_FALSE(await(registry->unregisterInspector(id + 1)).error);
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
  EXPECT_EQ(hub().inspectorRegistry()->inspectorCount(), 0u);
  EXPECT_TRUE(all().empty());
}

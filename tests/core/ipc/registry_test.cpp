#include "core/ipc/registry.h"

#include "module_fixture.h"

using namespace testing_support;

namespace {

using RegistryTest = ModuleTest;

}  // namespace

TEST_F(RegistryTest, HighestPriorityWinsThenTheNewestAndDeadModulesDropOut) {
  startModule("low", {"register=1"});
  awaitEntries(1);
  startModule("high", {"register=5"});
  awaitEntries(2);
  EXPECT_EQ(whoAmI(lookup()), "high");

  // Same priority as "high", registered later: it stands first.
  startModule("newer", {"register=5"});
  awaitEntries(3);
  EXPECT_EQ(whoAmI(lookup()), "newer");

  killModule("newer");
  awaitEntries(2);
  EXPECT_EQ(whoAmI(lookup()), "high");

  // Registering nothing is answered, and registers nothing.
  auto nothing = await(worker->registry()->callMethod(
      "registerInstance", fn::Value::map({{"instance", fn::Value()}, {"priority", 9}})));
  ASSERT_FALSE(nothing.error) << fn::describeException(nothing.error);
  EXPECT_TRUE(nothing.value->isNull());
  EXPECT_EQ(hub().registry()->entryCount(""), 0u);
}

TEST_F(RegistryTest, LookupsWaitForAVisibleEntryOrFailNamingTheClass) {
  auto pending = watch(worker->registry()->getInstance("TestService", fn::Duration::seconds(10)));
  auto missing = watch(worker->registry()->getInstance("NoSuchService", fn::Duration::seconds(1)));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return hub().registry()->waiterCount() == 2; }));
  EXPECT_FALSE(pending->settled);

  // Registered later, it answers the waiting lookup.
  startModule("visible", {"register=-1"});
  ASSERT_TRUE(runLoopUntil(loop, [&] { return pending->settled && missing->settled; }));
  ASSERT_FALSE(pending->error) << fn::describeException(pending->error);
  EXPECT_EQ(whoAmI(fn::AutoPtr<ServiceReference>(pending->value->objectAs<ServiceReference>())),
            "visible");
  auto const* timedOut = exceptionAs<fn::OperationTimedOutException>(missing->error);
  ASSERT_NE(timedOut, nullptr) << fn::describeException(missing->error);
  EXPECT_EQ(timedOut->message(),
            "Object of class NoSuchService is not available. Try restarting Lumaren");
  EXPECT_EQ(hub().registry()->waiterCount(), 0u);

  // Hidden entries are skipped; showing them again answers the lookups waiting by then.
  auto local = makeTestService(*worker, "local");
  auto registered = await(worker->registry()->registerObject(local, 3));
  ASSERT_FALSE(registered.error) << fn::describeException(registered.error);
  EXPECT_EQ(whoAmI(lookup()), "local");

  auto hidden = await(worker->registry()->callMethod("setInstancesHidden", true));
  ASSERT_FALSE(hidden.error);
  EXPECT_EQ(hub().registry()->entryCount("TestService"), 2u);
  EXPECT_EQ(whoAmI(lookup()), "visible");
  killModule("visible");
  awaitEntries(1);
  auto waiting = watch(worker->registry()->getInstance("TestService", fn::Duration::seconds(10)));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return hub().registry()->waiterCount() == 1; }));
  EXPECT_FALSE(waiting->settled);

  auto shown = await(worker->registry()->callMethod("setInstancesHidden", false));
  ASSERT_FALSE(shown.error);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return waiting->settled; }));
  ASSERT_FALSE(waiting->error) << fn::describeException(waiting->error);
  // Our own instance comes home as its local reference.
  auto* service = waiting->value->objectAs<ServiceReference>();
  ASSERT_NE(service, nullptr);
  EXPECT_TRUE(service->local());
}

namespace {

// The test's own worker terminates when idle, and its owner changes its mind once the entries
// are hidden.
class BusyAgainTest : public ModuleTest {
protected:
  BusyAgainTest() {
    delegate.idleTermination = true;
    workerOptions.idleTimeout = fn::Duration::milliseconds(200);
  }
  int checks = 0;
};

}  // namespace

TEST_F(BusyAgainTest, AWorkerBusyAgainAfterHidingShowsItsEntriesAndGoesOn) {
  auto local = makeTestService(*worker, "local");
  auto registered = await(worker->registry()->registerObject(local, 0));
  ASSERT_FALSE(registered.error) << fn::describeException(registered.error);
  // Idle now (only the registry uses the instance); the first check agrees, the one after
  // hiding does not, and every later one keeps the worker running.
  delegate.canTerminate = [this] { return ++checks == 1; };
  ASSERT_TRUE(runLoopUntil(loop, [&] { return checks >= 3; }));
  EXPECT_EQ(delegate.terminationRequests, 0);
  // Shown again: the lookup, sent after the worker showed its entries, finds the instance.
  EXPECT_EQ(whoAmI(lookup()), "local");
  EXPECT_EQ(hub().registry()->waiterCount(), 0u);
}

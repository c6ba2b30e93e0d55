#pragma once

// A hub, a worker of the test's own process connected to it, and module processes that play
// services (test_module.h), for the end-to-end suites of the registry and the message bus.

#include <csignal>
#include <map>
#include <memory>
#include <optional>

#include "core/app_info.h"
#include "core/ipc/message_bus.h"
#include "core/ipc/registry.h"
#include "core/ipc/worker.h"
#include "hub_fixture.h"
#include "test_module.h"

namespace testing_support {

/// How a promise ended (a void promise's value is `true`).
template <typename T>
struct Settled {
  bool settled = false;
  std::optional<std::conditional_t<std::is_void_v<T>, bool, T>> value;
  std::exception_ptr error;
};

class ModuleTest : public HubTest {
protected:
  explicit ModuleTest(bool onDefaultLoop = false) : HubTest(onDefaultLoop) {}

  void SetUp() override {
    core::AppInfo::initialize(core::AppInfo::App::LUMAREN);
    HubTest::SetUp();
    hub().worker().registerObjectReferenceClass<ServiceReference>();
    worker = std::make_unique<ipc::Worker>(delegate, loop, hub().pipePath(), "T", "t-tag",
                                           delegate.idleTermination, workerOptions);
    worker->registerObjectReferenceClass<ServiceReference>();
    lostHub =
        worker->onDisconnected().connect([this](fn::uv::Status const&) { workerLost = true; });
    worker->connect();
    ASSERT_TRUE(runLoopUntil(loop, [&] { return worker->connected(); }));
    ASSERT_TRUE(worker->registry());
  }

  void TearDown() override {
    killModules();
    modules.clear();
    // The hub goes before our worker: losing it gives up the uses it counted of our
    // instances (the registry's among them), so they are freed while the worker still lives.
    HubTest::TearDown();
    EXPECT_TRUE(runLoopUntil(loop, [&] { return workerLost; }));
    drainLoop(loop);
    worker.reset();
    drainLoop(loop);
  }

  ChildProcess& startModule(fn::String const& name, std::vector<fn::String> const& roles) {
    modules[name] = startTestModule(loop, name, hub().pipePath(), roles);
    return *modules[name];
  }

  void killModule(fn::String const& name) {
    modules[name]->kill(SIGKILL);
    modules[name]->waitForExit();
  }
  void killModules() {
    for (auto& [name, module] : modules)
      module->kill(SIGKILL);
    for (auto& [name, module] : modules)
      module->waitForExit();
  }

  /// Runs the loop until `promise` settled; nothing settles inside the call that made it.
  template <typename T>
  Settled<T> await(fn::Promise<T> promise) {
    auto outcome = watch(std::move(promise));
    EXPECT_FALSE(outcome->settled) << "a continuation ran inside the call";
    EXPECT_TRUE(runLoopUntil(loop, [&] { return outcome->settled; }));
    return *outcome;
  }

  template <typename T>
  std::shared_ptr<Settled<T>> watch(fn::Promise<T> promise) {
    auto outcome = std::make_shared<Settled<T>>();
    auto settle = [outcome](std::exception_ptr error, auto value) {
      EXPECT_FALSE(outcome->settled);
      outcome->settled = true;
      outcome->error = error;
      outcome->value = std::move(value);
    };
    auto fail = [settle](std::exception_ptr error) { settle(error, std::nullopt); };
    if constexpr (std::is_void_v<T>)
      promise.then([settle] { settle(nullptr, true); }, fail);
    else
      promise.then([settle](T value) { settle(nullptr, std::move(value)); }, fail);
    return outcome;
  }

  /// The service a lookup of "TestService" finds, or null after a failure.
  fn::AutoPtr<ServiceReference> lookup() {
    auto outcome = await(worker->registry()->getInstance("TestService", fn::Duration::seconds(5)));
    EXPECT_FALSE(outcome.error) << fn::describeException(outcome.error);
    if (!outcome.value)
      return nullptr;
    return fn::AutoPtr<ServiceReference>(outcome.value->template objectAs<ServiceReference>());
  }

  /// The answer of `service` to `method`; a failure fails the test.
  fn::Value call(ServiceReference& service, fn::String const& method, fn::Value argument = {}) {
    auto outcome = await(service.callMethod(method, argument));
    EXPECT_FALSE(outcome.error) << fn::describeException(outcome.error);
    return outcome.value.value_or(fn::Value("(failed)"));
  }

  /// The name of the module (or "local") whose service `service` is.
  fn::String whoAmI(fn::AutoPtr<ServiceReference> const& service) {
    return service ? call(*service, "whoAmI").asString() : fn::String("(none)");
  }

  /// Runs the loop until the hub's registry holds `count` entries of "TestService".
  void awaitEntries(size_t count) {
    EXPECT_TRUE(
        runLoopUntil(loop, [&] { return hub().registry()->entryCount("TestService") == count; }))
        << "entries: " << hub().registry()->entryCount("TestService");
  }

  TestDelegate delegate;
  ipc::Worker::Options workerOptions;
  std::unique_ptr<ipc::Worker> worker;
  bool workerLost = false;
  fn::Handle lostHub;
  std::map<fn::String, std::unique_ptr<ChildProcess>> modules;
};

}  // namespace testing_support

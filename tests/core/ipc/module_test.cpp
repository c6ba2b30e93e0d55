#include "core/ipc/module.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <list>

#include "child_process.h"
#include "core/ipc/module_definition.h"
#include "foundation/environment.h"
#include "foundation/path_manager.h"
#include "foundation/shared_library.h"
#include "module_fixture.h"
#include "platform.h"
#include "test_module_library.h"

using namespace testing_support;
using namespace test_modules;

namespace {

/// Runs the loop, waking it now and then, until `done()`: for what no loop event announces.
bool pollUntil(fn::uv::Loop& loop, std::function<bool()> const& done, fn::Duration timeout) {
  auto deadline =
      std::chrono::steady_clock::now() + std::chrono::microseconds(timeout.totalMicroseconds());
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    bool tick = false;
    fn::Handle timer = loop.schedule(fn::Duration::milliseconds(20), [&] { tick = true; });
    loop.runUntil([&] { return tick; });
  }
  return done();
}

/// A hub on the default loop, where in-process modules run, and a worker of the test's own
/// that looks services up and hears the modules on the bus.
class ModuleLaunchTest : public ModuleTest {
protected:
  struct Launchable {
    std::unique_ptr<ipc::ModuleDefinition> definition;
    std::vector<std::pair<long long, int>> exits;
    fn::Handle watch;
  };

  ModuleLaunchTest() : ModuleTest(/*onDefaultLoop=*/true) {}

  void SetUp() override {
    directory = testing_support::makeTemporaryDirectory("lumaren-modules");
    for (char const* copy : {TEST_MODULE, TEST_MODULE_B}) {
      for (char const* suffix : {"MODE", "IDLE_MS"})
        fn::Environment::unset(variable(copy, suffix).c_str());
    }
    ModuleTest::SetUp();
    registerServiceReferences(hub().worker());
    registerServiceReferences(*worker);
    bus = await(ipc::MessageBus::lookup(*worker)).value.value_or(nullptr);
    ASSERT_TRUE(bus);
    for (auto* heard : {&connected, &terminating}) {
      subscriptions.push_back(bus->listen(
          heard == &connected ? CONNECTED : TERMINATING,
          [heard](fn::String const&, fn::Value const& body) { heard->push_back(body); }));
    }
  }

  void TearDown() override {
    for (auto& launched : launchables) {
      if (auto process = launched.definition->processInfo()) {
        launched.definition->kill(true);
        EXPECT_TRUE(pollUntil(
            loop, [&] { return processEnded(process->pid); }, fn::Duration::seconds(5)));
      }
    }
    launchables.clear();
    ipc::Module::destroyInProcessModules();
    subscriptions.clear();
    bus.reset();
    ModuleTest::TearDown();
    std::filesystem::remove_all(std::string(directory));
  }

  /// A definition as the hub's configuration makes it, recording its exits.
  Launchable& define(fn::String const& name, bool inProcess) {
    auto& launched = launchables.emplace_back();
    launched.definition.reset(
        ipc::ModuleDefinition::create(name, ipc::MODULE_LOADER_NAME, inProcess, inProcess, false));
    launched.watch = launched.definition->onExit().connect(
        [&launched](long long status, int signal) { launched.exits.emplace_back(status, signal); });
    return launched;
  }

  /// What the module launched with `tag` said on the bus when it connected.
  fn::Value awaitConnected(fn::String const& tag) {
    auto said = [&] {
      return std::ranges::find_if(connected, [&](auto const& b) { return b.get("tag") == tag; });
    };
    EXPECT_TRUE(runLoopUntil(loop, [&] { return said() != connected.end(); })) << tag;
    return said() != connected.end() ? *said() : fn::Value();
  }

  /// The result of `method` called on the current service of `copy`.
  fn::Value call(fn::String const& copy, fn::String const& method, fn::Value argument = {}) {
    auto found = await(worker->registry()->getInstance(serviceClass(copy)));
    auto* service = found.value ? found.value->objectAs<ipc::CallableObjectReference>() : nullptr;
    if (!service)
      return fn::Value("no service: " + fn::describeException(found.error));
    auto result = await(service->callMethod(method, argument));
    return result.value ? *result.value : fn::Value(fn::describeException(result.error));
  }

  fn::String directory;
  fn::AutoPtr<ipc::MessageBus> bus;
  std::vector<fn::Handle> subscriptions;
  std::vector<fn::Value> connected, terminating;
  std::list<Launchable> launchables;
};

}  // namespace

TEST_F(ModuleLaunchTest, AnExternalModuleRunsInTheLoaderAndIsReportedWhenItEnds) {
  LogCapture log;
  fn::logging::CategoryManager::instance().setThreshold("ipc.moduleLoader", fn::logging::DBG);
  auto& module = define(TEST_MODULE, false);
  auto* external = module.definition.get();
  external->launch(hub(), "tag-1");
  ASSERT_TRUE(external->processInfo());
  EXPECT_EQ(
      log.matching("About to launch module loader at " +
                   fn::PathManager::instance().applicationDirectory() + "/bin/Lumaren.ModuleLoader")
          .size(),
      1u);
  // It has its tag, and had the bus by the time it was told it is connected.
  fn::Value hello = awaitConnected("tag-1");
  EXPECT_EQ(hello.get("pid"), fn::Value(external->processInfo()->pid));
  EXPECT_EQ(hello.get("separateProcess"), fn::Value(true));

  // Killed through the definition: forgotten at once, so that it can launch again.
  external->kill(true);
  EXPECT_FALSE(external->processInfo());
  external->launch(hub(), "tag-2");
  EXPECT_EQ(awaitConnected("tag-2").get("pid"), fn::Value(external->processInfo()->pid));
  EXPECT_EQ(call(TEST_MODULE, "whoAmI").get("tag"), fn::Value("tag-2"));

  // Ended otherwise, by a signal or an exit of its own: reported, and the process forgotten.
  uv_kill(external->processInfo()->pid, SIGTERM);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return !module.exits.empty(); }));
  EXPECT_FALSE(external->processInfo());
  external->launch(hub(), "tag-3");
  awaitConnected("tag-3");
  call(TEST_MODULE, "exit", 3);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return module.exits.size() == 2; }));
  // The first process, killed, was never reported.
  // Windows ends a process killed from outside with status 1 and tells no signal.
  std::pair<long long, int> killed =
      testing_support::isWindows() ? std::pair{1LL, 0} : std::pair{0LL, SIGTERM};
  EXPECT_EQ(module.exits, (std::vector<std::pair<long long, int>>{killed, {3, 0}}));

  // A module that cannot be loaded ends with that failure before it ever connects; in
  // process, the launch itself fails, and may be tried again.
  auto& missing = define("Missing", false);
  missing.definition->launch(hub(), "missing");
  ASSERT_TRUE(runLoopUntil(loop, [&] { return !missing.exits.empty(); }));
  EXPECT_EQ(missing.exits[0], std::make_pair(1LL, 0));
  auto& inProcess = define("Missing", true);
  EXPECT_THROW(inProcess.definition->launch(hub(), "m-2"), fn::SharedLibraryException);
  EXPECT_THROW(inProcess.definition->launch(hub(), "m-3"), fn::SharedLibraryException);
  EXPECT_EQ(ipc::Module::inProcessModuleCount(), 0u);
}

TEST_F(ModuleLaunchTest, InProcessModulesRunInTheHubAndCannotBeKilled) {
  LogCapture log;
  auto& first = define(TEST_MODULE_B, true);
  first.definition->launch(hub(), "in-1");
  // The entry point returned at once; the module connects on the hub's own loop.
  EXPECT_EQ(ipc::Module::inProcessModuleCount(), 1u);
  fn::Value hello = awaitConnected("in-1");
  EXPECT_EQ(hello.get("pid"), fn::Value(uv_os_getpid()));
  EXPECT_EQ(hello.get("separateProcess"), fn::Value(false));
  ASSERT_TRUE(ipc::MessageBus::processBus());

  first.definition->launch(hub(), "in-2");
  first.definition->kill(true);
  EXPECT_EQ(log.matching("Shared library for module TestModuleB has already been loaded").size(),
            1u);
  auto refused = log.matching("Can't kill in-process module TestModuleB");
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(refused[0].category, "ipc.module");
  EXPECT_EQ(ipc::Module::inProcessModuleCount(), 1u);
  EXPECT_EQ(call(TEST_MODULE_B, "whoAmI").get("tag"), fn::Value("in-1"));

  // A second module of the process finds the bus there already.
  define(TEST_MODULE, true).definition->launch(hub(), "in-3");
  EXPECT_EQ(call(TEST_MODULE, "whoAmI").get("tag"), fn::Value("in-3"));

  // Gone with their workers: their services leave the registry, the bus leaves the process.
  ipc::Module::destroyInProcessModules();
  EXPECT_EQ(ipc::Module::inProcessModuleCount(), 0u);
  EXPECT_FALSE(ipc::MessageBus::processBus());
  EXPECT_TRUE(runLoopUntil(loop, [&] {
    return hub().registry()->entryCount(serviceClass(TEST_MODULE)) +
               hub().registry()->entryCount(serviceClass(TEST_MODULE_B)) ==
           0;
  }));
}

TEST_F(ModuleLaunchTest, AnIdleModuleHidesItsServiceAndEnds) {
  fn::Environment::set(variable(TEST_MODULE, "MODE").c_str(), "idle");
  fn::Environment::set(variable(TEST_MODULE, "IDLE_MS").c_str(), "300");
  auto& module = define(TEST_MODULE, false);
  module.definition->launch(hub(), "idle-1");
  awaitConnected("idle-1");

  // Nobody uses its service, so it asks to end; by then its entry is hidden, not gone.
  ASSERT_TRUE(runLoopUntil(loop, [&] { return !terminating.empty(); }));
  EXPECT_EQ(terminating[0].get("tag"), fn::Value("idle-1"));
  EXPECT_EQ(hub().registry()->entryCount(serviceClass(TEST_MODULE)), 1u);
  auto lookup = await(
      worker->registry()->getInstance(serviceClass(TEST_MODULE), fn::Duration::milliseconds(200)));
  EXPECT_NE(exceptionAs<fn::OperationTimedOutException>(lookup.error), nullptr);
  EXPECT_TRUE(module.exits.empty());

  bus->post(QUIT, "idle-1");
  ASSERT_TRUE(runLoopUntil(loop, [&] { return !module.exits.empty(); }));
  EXPECT_EQ(module.exits[0], std::make_pair(0LL, 0));
}

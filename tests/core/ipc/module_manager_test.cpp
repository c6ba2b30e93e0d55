// The module manager's supervision rules, with real module processes: modules that connect
// (the test executable as a module process), that never connect (sleep) and that crash before
// connecting (a shell that exits). Durations are shortened through the manager's options.

#include "core/ipc/module_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <thread>

#include "child_role.h"
#include "core/ipc/module_definition.h"
#include "foundation/uv/process.h"
#include "hub_fixture.h"
#include "log_capture.h"
#include "platform.h"

namespace {

using namespace testing_support;

enum class Behaviour { Connect, NeverConnect, Crash, FailToStart };

// Every child launched: each test waits until all of them have exited, so none outlives the
// test's loop.
std::vector<fn::AutoPtr<fn::uv::Process>> children;

// Child roles of a module that crashes at once, and of one that never connects.
int crash(int, char**) {
  return 3;
}

int sleepLong(int, char**) {
  std::this_thread::sleep_for(std::chrono::seconds(30));
  return 0;
}

[[maybe_unused]] bool const crashRole = registerChildRole("--exit-3", &crash);
[[maybe_unused]] bool const sleepRole = registerChildRole("--sleep", &sleepLong);

// An external module (the test executable in a child role) whose launches behave as scripted,
// one behaviour per attempt (the last one repeats).
class ScriptedModule : public ipc::ExternalModule {
public:
  ScriptedModule(fn::String name, std::deque<Behaviour> script, bool killable = true)
      : ExternalModule(name, fn::uv::executablePath(), false),
        _script(std::move(script)),
        _killable(killable) {}

  bool launchFirst() const override { return _launchFirst; }
  bool canBeKilled() const override { return _killable; }
  void launch(ipc::Dispatcher& dispatcher, fn::String const& tag) override {
    ++launches;
    ExternalModule::launch(dispatcher, tag);
    children.push_back(_process);
  }
  std::vector<fn::String> arguments(ipc::Dispatcher& dispatcher, fn::String const& tag) override {
    Behaviour behaviour = _script.front();
    if (_script.size() > 1)
      _script.pop_front();
    if (behaviour == Behaviour::FailToStart)
      throw fn::IOException("no such module");
    if (behaviour == Behaviour::Connect)
      return {"--module", _name, dispatcher.pipePath(), "tag=" + tag, "register=0"};
    return {behaviour == Behaviour::Crash ? "--exit-3" : "--sleep"};
  }

  int pid() const { return processInfo() ? processInfo()->pid : 0; }

  bool _launchFirst = false;
  int launches = 0;

private:
  std::deque<Behaviour> _script;
  bool _killable;
};

class ModuleManagerTest : public HubTest {
protected:
  static constexpr auto CONNECT = fn::Duration::milliseconds(1500);
  static constexpr auto RESTART = fn::Duration::milliseconds(100);

  void TearDown() override {
    _manager.reset();
    EXPECT_TRUE(runLoopUntil(loop, [] {
      return std::ranges::all_of(children, [](auto const& child) { return child->exited(); });
    }));
    children.clear();
    HubTest::TearDown();
  }

  /// A started manager over `definitions`; the test keeps raw pointers to them.
  ipc::ModuleManager& manage(std::vector<ipc::ModuleDefinition*> definitions) {
    _manager = std::make_unique<ipc::ModuleManager>(hub(), std::move(definitions),
                                                    ipc::ModuleManager::Options{CONNECT, RESTART});
    _fatal = _manager->onFatalError().connect([this](fn::String text) { fatal.push_back(text); });
    _allConnected = _manager->onAllModulesConnected().connect([this] { ++allConnected; });
    _notResponding = _manager->onModuleNotResponding().connect(
        [this](fn::String name) { notResponding.push_back(name); });
    _manager->start();
    return *_manager;
  }

  bool waitFor(std::function<bool()> condition, fn::Duration timeout = fn::Duration::seconds(10)) {
    return runLoopUntil(loop, condition, timeout);
  }
  /// Lets the loop run for `duration`, to show that nothing more happens.
  void settle(fn::Duration duration) {
    runLoopUntil(
        loop, [] { return false; }, duration);
  }

  ipc::ModuleManager::ModuleState const& state(size_t index) {
    return *_manager->states().at(index);
  }

  LogCapture logs;
  std::vector<fn::String> fatal;
  std::vector<fn::String> notResponding;
  int allConnected = 0;

private:
  std::unique_ptr<ipc::ModuleManager> _manager;
  fn::Handle _fatal, _allConnected, _notResponding;
};

TEST_F(ModuleManagerTest, ModuleThatNeverConnectsGetsOneMoreAttemptThenOneFatalError) {
  auto* slow = new ScriptedModule("slow", {Behaviour::NeverConnect});
  manage({slow});
  ASSERT_TRUE(waitFor([&] { return !fatal.empty(); }, fn::Duration::seconds(15)));
  EXPECT_EQ(fatal, std::vector<fn::String>{"Module slow failed to connect"});
  EXPECT_TRUE(logs.contains("Module slow timed out at launch, will attempt to restart"));
  EXPECT_TRUE(logs.contains("Module slow timed out at launch, giving up"));
  EXPECT_TRUE(logs.contains("Launching module slow (" + state(0).workerTag + ") (attempt 2)"));
  // Given up for good: the second sleeper is killed and nothing is launched again.
  settle(fn::Duration::milliseconds(1500 + 300));
  EXPECT_EQ(slow->launches, 2);
  EXPECT_EQ(slow->pid(), 0);
  EXPECT_EQ(fatal.size(), 1u);
}

TEST_F(ModuleManagerTest, CrashBeforeConnectingIsRestartedOnceOnTheFirstAttemptOnly) {
  auto* flaky = new ScriptedModule("flaky", {Behaviour::Crash});
  manage({flaky});
  ASSERT_TRUE(waitFor([&] { return !fatal.empty(); }));
  EXPECT_TRUE(logs.contains("Module flaky did exit (status: 3, signal 0)"));
  EXPECT_EQ(fatal, std::vector<fn::String>{
                       "Module flaky did exit before connection was established (status: 3, "
                       "signal 0)"});
  settle(fn::Duration::milliseconds(100 * 5));
  EXPECT_EQ(flaky->launches, 2);

  // A module whose first attempt crashes but whose second connects is simply running.
  auto* recovering = new ScriptedModule("recovering", {Behaviour::Crash, Behaviour::Connect});
  fatal.clear();
  manage({recovering});
  ASSERT_TRUE(waitFor([&] { return allConnected == 1; }));
  EXPECT_TRUE(fatal.empty());
  EXPECT_TRUE(logs.contains("Module recovering has connected"));
}

TEST_F(ModuleManagerTest, ConnectedModuleIsRestartedEveryTimeItExitsUntilStopped) {
  auto* worker = new ScriptedModule("crashy", {Behaviour::Connect});
  auto& manager = manage({worker});
  for (int round = 1; round <= 3; ++round) {
    ASSERT_TRUE(waitFor([&] { return state(0).connected; })) << "round " << round;
    ASSERT_EQ(state(0).launchAttemptCount, uint32_t(round));
    uv_kill(worker->pid(), SIGKILL);
    ASSERT_TRUE(waitFor([&] { return !state(0).connected; }));
  }
  ASSERT_TRUE(waitFor([&] { return state(0).connected; }));
  // Windows ends a process killed from outside with status 1 and tells no signal.
  char const* exit = testing_support::isWindows() ? "Module crashy did exit (status: 1, signal 0)"
                                                  : "Module crashy did exit (status: 0, signal 9)";
  EXPECT_EQ(logs.matching(exit).size(), 3u);
  // onAllModulesConnected fires whenever the last module (re)connects.
  EXPECT_EQ(allConnected, 4);

  // Stopping ends supervision: the process is killed and reaped, and nothing comes back.
  int pid = worker->pid();
  manager.stop();
  EXPECT_EQ(worker->pid(), 0);
  ASSERT_TRUE(waitFor([&] { return uv_kill(pid, 0) != 0; }));
  settle(fn::Duration::milliseconds(100 * 5));
  EXPECT_EQ(worker->launches, 4);
  EXPECT_TRUE(fatal.empty());
}

TEST_F(ModuleManagerTest, StoppedModuleIsKilledAndRestartedUnlessInProcess) {
  startHub(fn::Duration::milliseconds(600));
  auto* external = new ScriptedModule("external", {Behaviour::Connect});
  auto* inProcess = new ScriptedModule("inproc", {Behaviour::Connect}, /*killable=*/false);
  manage({external, inProcess});
  ASSERT_TRUE(waitFor([&] { return allConnected == 1; }));

  int stoppedPid = external->pid();
  ASSERT_TRUE(testing_support::suspendProcess(stoppedPid, true));
  ASSERT_TRUE(waitFor([&] { return !notResponding.empty(); }));
  EXPECT_EQ(notResponding.front(), "external");
  EXPECT_TRUE(logs.contains("Module external stopped responding and will be terminated"));
  ASSERT_TRUE(waitFor([&] { return state(0).connected && state(0).launchAttemptCount == 2; }));
  EXPECT_NE(external->pid(), stoppedPid);

  // A module that cannot be killed is reported and left alone.
  int keptPid = inProcess->pid();
  notResponding.clear();
  ASSERT_TRUE(testing_support::suspendProcess(keptPid, true));
  ASSERT_TRUE(waitFor([&] { return !notResponding.empty(); }));
  EXPECT_EQ(notResponding.front(), "inproc");
  EXPECT_TRUE(logs.contains(
      "Module inproc stopped responding but can not be terminated because it is in-process"));
  settle(fn::Duration::milliseconds(100 * 3));
  EXPECT_EQ(inProcess->pid(), keptPid);
  EXPECT_EQ(state(1).launchAttemptCount, 1u);
  uv_kill(keptPid, SIGKILL);
  EXPECT_TRUE(fatal.empty());
}

TEST_F(ModuleManagerTest, LaunchOrderFailuresAndStrangers) {
  auto* second = new ScriptedModule("second", {Behaviour::Connect});
  auto* first = new ScriptedModule("first", {Behaviour::Connect});
  first->_launchFirst = true;
  auto* broken = new ScriptedModule("broken", {Behaviour::FailToStart});
  auto* never = new ScriptedModule("never", {Behaviour::Connect});
  manage({second, first, broken, never});
  // The module that launches first is on its way before start() returns.
  EXPECT_EQ(first->launches, 1);
  EXPECT_EQ(second->launches, 0);
  ASSERT_TRUE(waitFor([&] { return !fatal.empty(); }));
  EXPECT_EQ(fatal.front().substr(0, 31), "Failed to start module broken:\n");
  EXPECT_NE(fatal.front().find("no such module"), fn::String::npos);
  EXPECT_TRUE(logs.contains("Aborting launch"));
  ASSERT_TRUE(waitFor([&] { return state(0).connected && state(1).connected; }));
  EXPECT_EQ(never->launches, 0);
  EXPECT_EQ(allConnected, 0);

  // A worker the manager did not launch is only logged (for debugging: tools come and go).
  fn::logging::CategoryManager::instance().setThreshold("ipc.moduleManager", fn::logging::DBG);
  uint16_t id = 0;
  auto stranger = connect("stranger", id);
  ASSERT_TRUE(waitFor([&] {
    return logs.contains("Received Connected notification for unmanaged module stranger");
  }));
  ipc::Dispatcher::WorkerInfo unknown{id, "stranger", "tag-stranger"};
  hub().onWorkerNotResponding().emit(unknown);
  EXPECT_TRUE(logs.contains(
      fmt::format("Received Not Responding notification for unmanaged workerId {}", id)));
}

}  // namespace

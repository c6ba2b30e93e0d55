#include "core/ipc/module.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "child_role.h"
#include "core/ipc/message_bus.h"
#include "core/ipc/module_definition.h"
#include "core/ipc/registry.h"
#include "foundation/environment.h"
#include "foundation/file.h"
#include "foundation/path_manager.h"
#include "foundation/shared_library.h"
#include "module_fixture.h"
#include "test_module_library.h"

using namespace testing_support;
using namespace test_modules;

namespace {

constexpr char const* SUFFIXES[] = {"MODE", "LAUNCHES", "IDLE_MS"};

/// Runs the loop, waking it up now and then, until `done()`: for things no loop event
/// announces (files, other processes).
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

/// Gone or a zombie nobody reaped yet: either way it runs no more.
bool processEnded(int pid) {
  if (::kill(pid, 0) != 0)
    return true;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  auto state = line.rfind(')');
  return state == std::string::npos || line.substr(state + 2, 1) == "Z";
}

/// The pids in a launches file, in launch order.
std::vector<int> launchedPids(fn::String const& file) {
  std::vector<int> pids;
  std::ifstream in(file);
  for (int pid; in >> pid;) {
    pids.push_back(pid);
    in.ignore(1000, '\n');
  }
  return pids;
}

/// A service of the test's own process, registered under the test module's class name.
class LocalService : public ipc::CallableObjectInstance {
public:
  using CallableObjectInstance::CallableObjectInstance;

protected:
  fn::AutoPtr<ipc::ObjectReference> createReference(
      ipc::ObjectReferenceInitializer& initializer) override {
    return fn::AutoPtr<ipc::ObjectReference>(
        new test_modules::ServiceReference<false>(initializer));
  }
  void onMethodCall(CallContext const& context,
                    fn::String const& method,
                    fn::Value const&) override {
    if (method == "whoAmI")
      sendResult(context, fn::Value::map({{"tag", "local"}}));
  }
};

/// A hub on the default loop, where in-process modules run, with a worker of the test's own
/// that listens on the bus.
class ModuleLaunchTest : public ::testing::Test {
protected:
  void SetUp() override {
    core::AppInfo::initialize(core::AppInfo::App::LUMAREN);
    char pattern[] = "/tmp/lumaren-modules-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    directory = pattern;
    for (char const* copy : {TEST_MODULE, TEST_MODULE_B}) {
      for (char const* suffix : SUFFIXES)
        fn::Environment::unset(variable(copy, suffix).c_str());
    }
    hub = std::make_unique<ipc::Dispatcher>(loop, fn::Duration::seconds(30));
    hub->bind();
    hub->start();
    ASSERT_TRUE(runLoopUntil(loop, [&] { return hub->worker().connected(); }));
    registerServiceReferences(hub->worker());
    hubConnections = hub->onWorkerConnected().connect(
        [this](ipc::Dispatcher::WorkerInfo const& info) { connectedTags.push_back(info.tag); });

    worker = std::make_unique<ipc::Worker>(delegate, loop, hub->pipePath(), "T", "t-tag", false);
    registerServiceReferences(*worker);
    worker->connect();
    ASSERT_TRUE(runLoopUntil(loop, [&] { return worker->connected(); }));
    auto found = await(ipc::MessageBus::lookup(*worker));
    ASSERT_TRUE(found.value) << fn::describeException(found.error);
    bus = *found.value;
    subscriptions.push_back(bus->listen(
        CONNECTED,
        [this](fn::String const&, fn::Value const& body) { connected.push_back(body); }));
    subscriptions.push_back(bus->listen(
        TERMINATING,
        [this](fn::String const&, fn::Value const& body) { terminating.push_back(body); }));
  }

  void TearDown() override {
    for (auto& [definition, exits] : definitions) {
      if (definition->processInfo()) {
        size_t before = exits->size();
        definition->kill(true);
        EXPECT_TRUE(runLoopUntil(loop, [&] { return exits->size() > before; }));
      }
    }
    definitions.clear();
    ipc::Module::destroyInProcessModules();
    subscriptions.clear();
    bus.reset();
    // The hub before our worker: losing it gives up the uses it counted of our instances.
    if (hub) {
      bool lost = false;
      fn::Handle watching =
          worker->onDisconnected().connect([&](fn::uv::Status const&) { lost = true; });
      hub.reset();
      EXPECT_TRUE(runLoopUntil(loop, [&] { return lost; }));
    }
    drainLoop(loop);
    worker.reset();
    drainLoop(loop);
    std::filesystem::remove_all(std::string(directory));
  }

  using Exits = std::vector<std::pair<long long, int>>;

  /// A definition as the hub's configuration makes it, whose exits are recorded.
  std::pair<ipc::ModuleDefinition*, std::shared_ptr<Exits>> define(fn::String const& name,
                                                                   bool inProcess) {
    std::unique_ptr<ipc::ModuleDefinition> definition(
        ipc::ModuleDefinition::create(name, ipc::MODULE_LOADER_NAME, inProcess, inProcess, false));
    auto exits = std::make_shared<Exits>();
    exitWatches.push_back(definition->onExit().connect(
        [exits](long long status, int signal) { exits->emplace_back(status, signal); }));
    auto* raw = definition.get();
    definitions.emplace_back(std::move(definition), exits);
    return {raw, exits};
  }

  /// What the module launched with `tag` said on the bus when it connected.
  fn::Value awaitConnected(fn::String const& tag) {
    auto find = [&]() -> fn::Value const* {
      for (auto const& body : connected) {
        if (body.get("tag") == fn::Value(tag))
          return &body;
      }
      return nullptr;
    };
    EXPECT_TRUE(runLoopUntil(loop, [&] { return find() != nullptr; })) << tag;
    return find() ? *find() : fn::Value();
  }

  template <typename T>
  Settled<T> await(fn::Promise<T> promise) {
    auto outcome = std::make_shared<Settled<T>>();
    auto failed = [outcome](std::exception_ptr error) {
      outcome->settled = true;
      outcome->error = error;
    };
    if constexpr (std::is_void_v<T>) {
      promise.then([outcome] { outcome->settled = true; }, failed);
    } else {
      promise.then(
          [outcome](T value) {
            outcome->settled = true;
            outcome->value = std::move(value);
          },
          failed);
    }
    EXPECT_TRUE(runLoopUntil(loop, [&] { return outcome->settled; }));
    return *outcome;
  }

  /// The result of calling `method` on the current service of `copy`.
  fn::Value call(fn::String const& copy, fn::String const& method, fn::Value argument = {}) {
    auto found =
        await(worker->registry()->getInstance(serviceClass(copy), fn::Duration::seconds(5)));
    auto* service = found.value ? found.value->objectAs<ipc::CallableObjectReference>() : nullptr;
    if (!service) {
      ADD_FAILURE() << "no " << serviceClass(copy) << ": " << fn::describeException(found.error);
      return {};
    }
    auto result = await(service->callMethod(method, argument));
    EXPECT_FALSE(result.error) << fn::describeException(result.error);
    return result.value.value_or(fn::Value());
  }

  fn::uv::Loop& loop = fn::uv::Loop::defaultLoop();
  fn::String directory;
  std::unique_ptr<ipc::Dispatcher> hub;
  fn::Handle hubConnections;
  std::vector<fn::String> connectedTags;
  TestDelegate delegate;
  std::unique_ptr<ipc::Worker> worker;
  fn::AutoPtr<ipc::MessageBus> bus;
  std::vector<fn::Handle> subscriptions;
  std::vector<fn::Value> connected;
  std::vector<fn::Value> terminating;
  std::vector<fn::Handle> exitWatches;
  std::vector<std::pair<std::unique_ptr<ipc::ModuleDefinition>, std::shared_ptr<Exits>>>
      definitions;
};

}  // namespace

TEST_F(ModuleLaunchTest, AnExternalModuleRunsInTheLoaderAndIsReportedWhenItEnds) {
  LogCapture log;
  fn::logging::CategoryManager::instance().setThreshold("ipc.moduleLoader", fn::logging::DBG);
  auto [definition, exits] = define(TEST_MODULE, false);
  auto* external = dynamic_cast<ipc::DefaultExternalModule*>(definition);
  ASSERT_NE(external, nullptr);
  fn::String root = fn::PathManager::instance().applicationDirectory();
  EXPECT_EQ(external->executablePath(), root + "/bin/Lumaren.ModuleLoader");
  EXPECT_EQ(ipc::ModuleDefinition::pathForSharedLibrary(TEST_MODULE),
            root + "/modules/TestModule.so");
  EXPECT_FALSE(definition->launchFirst());
  EXPECT_TRUE(definition->canBeKilled());
  EXPECT_FALSE(definition->processInfo());

  definition->launch(*hub, "tag-1");
  ASSERT_TRUE(definition->processInfo());
  auto launching = log.matching("About to launch module loader at " + external->executablePath());
  ASSERT_EQ(launching.size(), 1u);
  EXPECT_EQ(launching[0].category, "ipc.moduleLoader");
  EXPECT_EQ(launching[0].priority, fn::logging::DBG);
  // It said its tag to the hub, and had the bus by the time it was told it is connected.
  fn::Value hello = awaitConnected("tag-1");
  EXPECT_EQ(hello.get("pid"), fn::Value(definition->processInfo()->pid));
  EXPECT_EQ(hello.get("separateProcess"), fn::Value(true));
  EXPECT_EQ(hello.get("module"), fn::Value(TEST_MODULE));
  EXPECT_NE(std::find(connectedTags.begin(), connectedTags.end(), "tag-1"), connectedTags.end());
  EXPECT_EQ(call(TEST_MODULE, "whoAmI").get("tag"), fn::Value("tag-1"));
  EXPECT_EQ(call(TEST_MODULE, "echo", fn::Value::map({{"n", 7}})), fn::Value::map({{"n", 7}}));

  // Killed: the definition lets it go at once, so it can launch again; the exit follows.
  definition->kill(true);
  EXPECT_FALSE(definition->processInfo());
  definition->launch(*hub, "tag-2");
  ASSERT_TRUE(runLoopUntil(loop, [&] { return !exits->empty(); }));
  EXPECT_EQ(exits->front(), std::make_pair(0LL, SIGKILL));
  fn::Value again = awaitConnected("tag-2");
  EXPECT_EQ(again.get("pid"), fn::Value(definition->processInfo()->pid));

  // An exit of its own reports its status, and forgets the process.
  worker->registry()->getInstance(serviceClass(TEST_MODULE)).then([](fn::Value service) {
    service.objectAs<ipc::CallableObjectReference>()->callMethod("exit", 3);
  });
  ASSERT_TRUE(runLoopUntil(loop, [&] { return exits->size() == 2; }));
  EXPECT_EQ(exits->back(), std::make_pair(3LL, 0));
  EXPECT_FALSE(definition->processInfo());
}

TEST_F(ModuleLaunchTest, AModuleThatCannotBeLoadedFailsClearly) {
  // The loader on its own: wrong arguments, a library that is not there.
  fn::String loader = ipc::ModuleDefinition::pathForExecutable("Lumaren.ModuleLoader");
  auto run = [](fn::String const& command, std::string& output) {
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    char buffer[512];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe))
      output.append(buffer, n);
    int status = ::pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  std::string output;
  EXPECT_EQ(run(loader, output), 2);
  EXPECT_NE(output.find("usage: Lumaren.ModuleLoader LIBRARY PIPE TAG"), std::string::npos);
  output.clear();
  EXPECT_EQ(run(loader + " " + directory + "/Missing.so " + hub->pipePath() + " t", output), 1);
  EXPECT_NE(output.find(directory + "/Missing.so: cannot open shared object file"),
            std::string::npos)
      << output;

  // Launched by the hub, it ends with that failure before it ever connects.
  auto [external, exits] = define("Missing", false);
  external->launch(*hub, "missing");
  ASSERT_TRUE(runLoopUntil(loop, [&] { return !exits->empty(); }));
  EXPECT_EQ(exits->front(), std::make_pair(1LL, 0));
  // In process, the launch itself fails, and may be tried again.
  auto [inProcess, unused] = define("Missing", true);
  EXPECT_THROW(inProcess->launch(*hub, "missing-2"), fn::SharedLibraryException);
  EXPECT_THROW(inProcess->launch(*hub, "missing-3"), fn::SharedLibraryException);
  EXPECT_EQ(ipc::Module::inProcessModuleCount(), 0u);
}

TEST_F(ModuleLaunchTest, InProcessModulesRunInTheHubAndCannotBeKilled) {
  LogCapture log;
  auto [first, exits] = define(TEST_MODULE_B, true);
  EXPECT_TRUE(first->launchFirst());
  EXPECT_FALSE(first->canBeKilled());
  EXPECT_FALSE(first->processInfo());

  first->launch(*hub, "in-1");
  // The entry point returned at once; the module connects on the hub's own loop.
  EXPECT_EQ(ipc::Module::inProcessModuleCount(), 1u);
  fn::Value hello = awaitConnected("in-1");
  EXPECT_EQ(hello.get("pid"), fn::Value(::getpid()));
  EXPECT_EQ(hello.get("separateProcess"), fn::Value(false));
  EXPECT_EQ(call(TEST_MODULE_B, "whoAmI").get("tag"), fn::Value("in-1"));
  ASSERT_TRUE(ipc::MessageBus::processBus());

  first->launch(*hub, "in-2");
  auto loaded = log.matching("Shared library for module TestModuleB has already been loaded");
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0].category, "ipc.module");
  first->kill(true);
  auto killed = log.matching("Can't kill in-process module TestModuleB");
  ASSERT_EQ(killed.size(), 1u);
  EXPECT_EQ(killed[0].category, "ipc.module");
  EXPECT_EQ(ipc::Module::inProcessModuleCount(), 1u);
  EXPECT_EQ(call(TEST_MODULE_B, "echo", "still here"), fn::Value("still here"));

  // A second module of the process finds the bus there already.
  auto [second, unused] = define(TEST_MODULE, true);
  second->launch(*hub, "in-3");
  EXPECT_EQ(awaitConnected("in-3").get("separateProcess"), fn::Value(false));
  EXPECT_EQ(call(TEST_MODULE, "whoAmI").get("tag"), fn::Value("in-3"));

  // Gone with their workers: their services leave the registry, the bus leaves the process.
  ipc::Module::destroyInProcessModules();
  EXPECT_EQ(ipc::Module::inProcessModuleCount(), 0u);
  EXPECT_FALSE(ipc::MessageBus::processBus());
  EXPECT_TRUE(runLoopUntil(loop, [&] {
    return hub->registry()->entryCount(serviceClass(TEST_MODULE)) == 0 &&
           hub->registry()->entryCount(serviceClass(TEST_MODULE_B)) == 0;
  }));
  EXPECT_TRUE(exits->empty());
}

TEST_F(ModuleLaunchTest, AnIdleModuleHidesItsServiceAndEnds) {
  fn::Environment::set(variable(TEST_MODULE, "MODE").c_str(), "idle");
  fn::Environment::set(variable(TEST_MODULE, "IDLE_MS").c_str(), "300");
  fn::AutoPtr<LocalService> fallback(new LocalService(*worker));
  ASSERT_FALSE(await(worker->registry()->registerObject(fallback, -1)).error);
  auto [definition, exits] = define(TEST_MODULE, false);
  definition->launch(*hub, "idle-1");
  awaitConnected("idle-1");

  // Nobody uses its service, so it asks to end; by then its entry is hidden, not gone.
  ASSERT_TRUE(runLoopUntil(loop, [&] { return !terminating.empty(); }));
  EXPECT_EQ(terminating[0].get("tag"), fn::Value("idle-1"));
  EXPECT_EQ(hub->registry()->entryCount(serviceClass(TEST_MODULE)), 2u);
  EXPECT_EQ(call(TEST_MODULE, "whoAmI").get("tag"), fn::Value("local"));
  EXPECT_TRUE(exits->empty());

  bus->post(QUIT, "idle-1");
  ASSERT_TRUE(runLoopUntil(loop, [&] { return !exits->empty(); }));
  EXPECT_EQ(exits->front(), std::make_pair(0LL, 0));
  EXPECT_TRUE(runLoopUntil(
      loop, [&] { return hub->registry()->entryCount(serviceClass(TEST_MODULE)) == 1; }));
}

TEST_F(ModuleLaunchTest, AModuleProcessEndsWithItsHub) {
  auto [definition, exits] = define(TEST_MODULE, false);
  definition->launch(*hub, "ends");
  awaitConnected("ends");
  subscriptions.clear();
  bus.reset();
  bool lost = false;
  fn::Handle watching =
      worker->onDisconnected().connect([&](fn::uv::Status const&) { lost = true; });
  hub.reset();
  // Its worker lost the connection and the module stopped: a clean exit, no signal.
  ASSERT_TRUE(runLoopUntil(loop, [&] { return !exits->empty() && lost; }));
  EXPECT_EQ(exits->front(), std::make_pair(0LL, 0));
}

namespace {

// A hub in a process of its own, for the test that kills it: launches the test module with the
// tag "orphan" and writes the file argv[2] once the module connected.
int runModuleHub(int argc, char** argv) {
  if (argc < 3)
    return 2;
  ::signal(SIGPIPE, SIG_IGN);
  fn::uv::Loop& loop = fn::uv::Loop::defaultLoop();
  ipc::Dispatcher hub(loop, fn::Duration::seconds(30));
  hub.bind();
  hub.start();
  registerServiceReferences(hub.worker());
  std::unique_ptr<ipc::ModuleDefinition> definition(
      ipc::ModuleDefinition::create(TEST_MODULE, ipc::MODULE_LOADER_NAME, false, false, false));
  fn::String ready = argv[2];
  fn::Handle connections =
      hub.onWorkerConnected().connect([ready](ipc::Dispatcher::WorkerInfo const& info) {
        if (info.tag == "orphan")
          fn::File(ready).writeAll(fn::ByteArray(fn::String("connected")));
      });
  definition->launch(hub, "orphan");
  loop.run();
  return 0;
}

[[maybe_unused]] bool const hubRole = registerChildRole("--module-hub", &runModuleHub);

}  // namespace

TEST_F(ModuleLaunchTest, NoModuleProcessOutlivesAKilledHub) {
  // Once running and busy with nothing, once stopped: a stopped module cannot notice its lost
  // connection, so only the system's parent-death signal ends it.
  for (bool stopped : {false, true}) {
    SCOPED_TRACE(stopped ? "stopped module" : "running module");
    fn::String ready = directory + (stopped ? "/ready-stopped" : "/ready-running");
    fn::String launches = directory + (stopped ? "/launches-stopped" : "/launches-running");
    fn::Environment::set(variable(TEST_MODULE, "LAUNCHES").c_str(), launches);
    fn::uv::Process::Options options;
    options.file = fn::uv::executablePath();
    options.arguments = {"--module-hub", ready};
    bool hubEnded = false;
    auto hubProcess = fn::uv::Process::spawn(loop, options, [&](int64_t, int) { hubEnded = true; });
    ASSERT_TRUE(pollUntil(
        loop, [&] { return fn::File(ready).exists(); }, fn::Duration::seconds(10)));
    auto pids = launchedPids(launches);
    ASSERT_EQ(pids.size(), 1u);
    int module = pids[0];
    ASSERT_FALSE(processEnded(module));
    if (stopped)
      ASSERT_EQ(::kill(module, SIGSTOP), 0);

    hubProcess->kill(SIGKILL);
    ASSERT_TRUE(runLoopUntil(loop, [&] { return hubEnded; }));
    EXPECT_TRUE(pollUntil(
        loop, [&] { return processEnded(module); }, fn::Duration::seconds(2)));
    if (!processEnded(module))
      ::kill(module, SIGKILL);
  }
}

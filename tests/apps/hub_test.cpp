// lumaren-hub end to end: the real executable with the example modules, as the README runs it
// and as a host runs it from a configuration file; and what that file may say.

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>

#include "child_process.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "hub/config.h"
#include "loop_runner.h"
#include "platform.h"

using namespace testing_support;

namespace {

class HubAppTest : public ::testing::Test {
protected:
  void SetUp() override { dir = makeTemporaryDirectory("hub-test"); }
  void TearDown() override {
    hub.reset();
    std::filesystem::remove_all(std::string(dir));
  }

  /// `program` (from beside this test unless a path) with the test's own runtime directory.
  std::unique_ptr<ChildProcess> start(fn::String const& program,
                                      std::vector<fn::String> arguments,
                                      fn::String const& variable = {}) {
    std::vector<fn::String> environment{"XDG_RUNTIME_DIR=" + dir};
    if (!variable.empty())
      environment.push_back(variable);
    return ChildProcess::start(loop,
                               {.file = program.startsWith("/") ? program : siblingProgram(program),
                                .arguments = std::move(arguments),
                                .environment = std::move(environment),
                                .capture = true});
  }

  /// A hub from `config`, as process 1 of a new PID namespace if `namespaced`; it writes its
  /// default pipe file in the runtime directory, then the one it is asked for.
  void startHub(fn::String const& config,
                bool namespaced = false,
                fn::String const& variable = {}) {
    fn::File(dir + "/hub.json").writeAll(fn::ByteArray(config), 0600);
    std::vector<fn::String> arguments{"--config", dir + "/hub.json", "--pipe-file", dir + "/pipe"};
    if (namespaced)
      arguments.insert(arguments.begin(),
                       {"--pid", "--fork", "--kill-child", siblingProgram("lumaren-hub")});
    hub = start(namespaced ? "/usr/bin/unshare" : "lumaren-hub", std::move(arguments), variable);
  }
  bool hubPipeWritten() {
    return runLoopUntil(loop, [&] { return fn::File(dir + "/lumaren/hub.pipe").exists(); });
  }
  /// The greeter module, asked through the tool, greets Ada.
  void expectGreeting() {
    auto greet =
        start("lumaren-ctl", {"--timeout", "10", "call", "examples::Greeter", "greet", "\"Ada\""});
    EXPECT_EQ(greet->waitForExit(), 0) << greet->err() << hub->err();
    EXPECT_EQ(greet->out(), "\"Bonjour, Ada!\"\n");
  }

  fn::uv::Loop loop;
  fn::String dir;
  std::unique_ptr<ChildProcess> hub;
};

TEST_F(HubAppTest, DemoRunsTheExampleModulesAndEndsByItself) {
  auto demo = start("lumaren-hub", {"--demo"});
  ASSERT_EQ(demo->waitForExit(fn::Duration::seconds(40)), 0) << demo->out() << demo->err();
  for (char const* line : {
           "[announcer] posted the sticky bus message demo.greeting",
           "[hub] greet answered \"Bonjour, Ada!\"",
           "[hub] event \"greeted\": Ada (1 time(s))",
           "[hub] inspecting \"Greeter\":",
           "[hub]     1. Ada was greeted 1 time(s)",
           "[hub] the greeter module is back",
           "[hub] greet answered \"Bonjour, Grace!\"",
       })
    EXPECT_TRUE(demo->out().contains(line)) << line << "\n" << demo->out();
  // Windows ends a process killed from outside with status 1 and tells no signal.
  EXPECT_TRUE(demo->err().contains(isWindows() ? "Module greeter did exit (status: 1, signal 0)"
                                               : "Module greeter did exit (status: 0, signal 9)"))
      << demo->err();
}

TEST_F(HubAppTest, HostsItsModulesAndLeavesNoneBehindWhenStoppedOrKilled) {
  for (int signal : {SIGTERM, SIGKILL}) {
    SCOPED_TRACE(signal);
    // A hub ended at once (both times on Windows) leaves its pipe files behind: the next one
    // must not be looked for through them before it wrote its own.
    fn::File(dir + "/pipe").remove();
    startHub(R"({"product": "Orbisant", "timeout": 5, "modules": [
        {"name": "announcer", "inProcess": true, "launchFirst": true}, {"name": "greeter"}]})");
    // The default pipe file is written first, the one asked for last.
    ASSERT_TRUE(runLoopUntil(loop, [&] { return fn::File(dir + "/pipe").exists(); }));
    // The in-process announcer's sticky message reached the greeter process; the tool finds
    // the hub through the default pipe file.
    expectGreeting();
    EXPECT_EQ(fn::File(dir + "/lumaren/hub.pipe").readAll(), fn::File(dir + "/pipe").readAll());
    // The hub chose the product, so the registry names it to people.
    auto lookup = start("lumaren-ctl", {"--timeout", "0.2", "lookup", "Nothing"});
    EXPECT_NE(lookup->waitForExit(), 0);
    EXPECT_TRUE(
        lookup->err().contains("Object of class Nothing is not available. Try restarting Orbisant"))
        << lookup->err();

    // The greeter's loader process is the hub's only child. Stopped, it cannot notice that its
    // hub is gone: only the system ends it (the parent-death signal, or on Windows the job
    // object the hub put it in).
    std::vector<int> modules = childProcesses(hub->pid());
    ASSERT_EQ(modules.size(), 1u);
    if (signal == SIGKILL) {
      ASSERT_TRUE(suspendProcess(modules[0], true));
    }
    // Windows has no termination request a process can handle: both signals end it at once.
    bool graceful = signal == SIGTERM && !isWindows();
    hub->kill(signal);
    EXPECT_EQ(hub->waitForExit(), graceful ? 0 : -signal) << hub->err();
    EXPECT_TRUE(runLoopUntil(
        loop, [&] { return processEnded(modules[0]); }, fn::Duration::seconds(2)))
        << "module process " << modules[0] << " outlived its hub";
    if (!processEnded(modules[0]))
      uv_kill(modules[0], SIGKILL);
    // A stopped hub removes its pipe files.
    EXPECT_TRUE(!graceful || !(fn::File(dir + "/pipe").exists() ||
                               fn::File(dir + "/lumaren/hub.pipe").exists()));
  }
}

TEST_F(HubAppTest, ABadConfigurationStopsTheHubWithTheFileNamed) {
  startHub(R"({"modules": [{"name": "greeter", "launchFirst": true}]})");
  EXPECT_EQ(hub->waitForExit(), 1);
  EXPECT_TRUE(hub->err().contains("only in-process modules can be launched first") &&
              hub->err().contains(dir + "/hub.json"))
      << hub->err();
  auto unknown = start("lumaren-hub", {"--product", "Nope"});
  EXPECT_EQ(unknown->waitForExit(), 2);
}

TEST_F(HubAppTest, ModulesRunUnderAHubThatIsTheFirstProcessOfItsNamespace) {
  if (!isRoot())
    GTEST_SKIP() << "needs root (on Linux) for a PID namespace";
  // The hub is process 1 there, and so the parent of its module loaders, as in a container.
  startHub(R"({"modules": [
      {"name": "announcer", "inProcess": true, "launchFirst": true}, {"name": "greeter"}]})",
           true);
  ASSERT_TRUE(hubPipeWritten()) << hub->err();
  expectGreeting();
  hub->kill(SIGKILL);
  hub->waitForExit();
}

TEST_F(HubAppTest, ASecondHubHandsItsCommandLineToTheFirstWhoseModulesHearIt) {
  fn::String commands = dir + "/commands";
  startHub(R"({"modules": [{"name": "TestModule"}]})", false,
           "LUMAREN_TEST_MODULE_COMMANDS=" + commands);
  ASSERT_TRUE(hubPipeWritten()) << hub->err();
  // Once its service is found, the module listens to commands.
  auto found = start("lumaren-ctl", {"--timeout", "20", "lookup", "TestModuleService"});
  ASSERT_EQ(found->waitForExit(fn::Duration::seconds(30)), 0) << found->err() << hub->err();

  // Its configuration is not even read: the running hub gets the command line as it is.
  auto second = start("lumaren-hub", {"--timeout", "7", "--config", dir + "/missing.json"});
  EXPECT_EQ(second->waitForExit(), 0) << second->err();
  EXPECT_EQ(second->out(),
            "lumaren-hub: a hub of this user is running already; handed the command line to "
            "it\n");
  auto command = start("lumaren-ctl", {"command", R"({"open": "movie.mkv"})"});
  EXPECT_EQ(command->waitForExit(), 0) << command->err();

  auto heard = [&] {
    return fn::File(commands).exists() ? fn::String(fn::File(commands).readAll().view())
                                       : fn::String();
  };
  ASSERT_TRUE(runLoopUntil(loop, [&] { return heard().contains("movie.mkv"); }))
      << heard() << hub->err();
  EXPECT_TRUE(heard().startsWith(
      fmt::format(R"({{"arguments": ["--timeout", "7", "--config", "{}/missing.json"], )"
                  R"("workingDirectory": "{}"}})",
                  jsonEscaped(dir), jsonEscaped(std::filesystem::current_path().string()))))
      << heard();
  EXPECT_FALSE(hub->exited());

  // Without a running hub the tool says so.
  hub->kill(SIGTERM);
  hub->waitForExit();
  auto nobody = start("lumaren-ctl", {"command", "1"});
  EXPECT_EQ(nobody->waitForExit(), 4);
  EXPECT_TRUE(nobody->err().contains("no running instance takes commands")) << nobody->err();
}

TEST(HubConfig, EverythingIsOptionalAndWhatCannotBeUsedIsRejectedNamingTheEntry) {
  auto empty = hub::parseConfig("{}");
  EXPECT_EQ(empty.timeout, fn::Duration::seconds(30));
  EXPECT_TRUE(empty.modules.empty());
  for (auto const& [text, message] : std::vector<std::pair<char const*, char const*>>{
           {"{\"modules\": [", ""},  // malformed JSON, in the parser's words
           {"[]", "the configuration must be a JSON object"},
           {R"({"modules": [], "timout": 3})", "unknown key \"timout\""},
           {R"({"timeout": 0})", "\"timeout\" must be a number of seconds between 1 and 3600"},
           {R"({"timeout": 18446744073709551615})",
            "\"timeout\" must be a number of seconds between 1 and 3600"},
           {R"({"modules": {}})", "\"modules\" must be an array"},
           {R"({"modules": [7]})", "module 1: expected an object"},
           {R"({"modules": [{"name": "../evil"}]})",
            "module 1: \"name\" must be a library name without a directory"},
           {R"({"modules": [{"name": "a", "inProces": true}]})",
            "module 1: unknown key \"inProces\""},
           {R"({"modules": [{"name": "a", "inProcess": "yes"}]})",
            "module a: \"inProcess\" must be true or false"},
           {R"({"modules": [{"name": "a", "launchFirst": true}]})",
            "module a: only in-process modules can be launched first"},
           {R"({"modules": [{"name": "a"}, {"name": "a"}]})", "module a is listed twice"},
           {R"({"modules": [{"name": "a", "inProcess": true, "launchFirst": true},
                       {"name": "b", "inProcess": true, "launchFirst": true}]})",
            "module b: only one module can be launched first"}}) {
    try {
      hub::parseConfig(text, "/etc/hub.json");
      ADD_FAILURE() << "accepted " << text;
    } catch (fn::DataFormatException const& e) {
      EXPECT_EQ(*message ? fn::String(e.message()) : fn::String(), message) << text;
      EXPECT_EQ(e.info().path, "/etc/hub.json");
    }
  }
}

}  // namespace

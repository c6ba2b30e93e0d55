// lumaren-hub end to end: the real executable with the example modules, as the README runs it
// and as a host runs it from a configuration file.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

#include "child_process.h"
#include "foundation/file.h"
#include "peer.h"

using namespace testing_support;

namespace {

fn::String besideMe(char const* program) {
  fn::String self = fn::uv::executablePath();
  return self.substr(0, self.rfind('/') + 1) + program;
}

/// The pids of the children of `pid`.
std::vector<int> childrenOf(int pid) {
  std::ifstream children(fmt::format("/proc/{}/task/{}/children", pid, pid));
  std::vector<int> pids;
  for (int child; children >> child;)
    pids.push_back(child);
  return pids;
}

class HubAppTest : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/tmp/hub-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir = pattern;
  }
  void TearDown() override {
    hub.reset();
    std::system(("rm -rf " + dir).c_str());
  }

  /// A hub from `config`, with its default pipe file in a runtime directory of the test's own.
  void startHub(fn::String const& config) {
    fn::File(dir + "/hub.json").writeAll(fn::ByteArray(config), 0600);
    hub = ChildProcess::start(
        loop, {.file = besideMe("lumaren-hub"),
               .arguments = {"--config", dir + "/hub.json", "--pipe-file", dir + "/pipe"},
               .environment = {"XDG_RUNTIME_DIR=" + dir},
               .capture = true});
  }

  /// lumaren-ctl against the hub, through the default pipe file the hub wrote.
  std::pair<int64_t, fn::String> ctl(std::vector<fn::String> arguments) {
    auto child = ChildProcess::start(loop, {.file = besideMe("lumaren-ctl"),
                                            .arguments = std::move(arguments),
                                            .environment = {"XDG_RUNTIME_DIR=" + dir},
                                            .capture = true});
    int64_t status = child->waitForExit();
    return {status, child->out() + child->err()};
  }

  static constexpr char const* TWO_MODULES = R"({"timeout": 5, "modules": [
      {"name": "announcer", "inProcess": true, "launchFirst": true},
      {"name": "greeter"}]})";

  fn::uv::Loop loop;
  fn::String dir;
  std::unique_ptr<ChildProcess> hub;
};

TEST_F(HubAppTest, DemoRunsTheExampleModulesAndEndsByItself) {
  auto demo = ChildProcess::start(
      loop, {.file = besideMe("lumaren-hub"), .arguments = {"--demo"}, .capture = true});
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
    EXPECT_NE(demo->out().find(line), fn::String::npos) << line << "\n" << demo->out();
  EXPECT_NE(demo->err().find("Module greeter did exit (status: 0, signal 9)"), fn::String::npos)
      << demo->err();
}

TEST_F(HubAppTest, HostsItsModulesAndLeavesNoneBehindWhenStoppedOrKilled) {
  for (int signal : {SIGTERM, SIGKILL}) {
    SCOPED_TRACE(signal);
    startHub(TWO_MODULES);
    // The default pipe file is written first, the one asked for last.
    ASSERT_TRUE(runLoopUntil(loop, [&] { return fn::File(dir + "/pipe").exists(); }));
    // The in-process announcer's sticky message reached the greeter process.
    auto [status, output] =
        ctl({"--timeout", "10", "call", "examples::Greeter", "greet", "\"Ada\""});
    ASSERT_EQ(status, 0) << output << hub->err();
    EXPECT_EQ(output, "\"Bonjour, Ada!\"\n");
    fn::String pipe = fn::File(dir + "/pipe").readAll().toString();
    EXPECT_EQ(fn::File(dir + "/lumaren/hub.pipe").readAll().toString(), pipe);

    auto modules = childrenOf(hub->pid());
    ASSERT_EQ(modules.size(), 1u) << "the greeter's loader process";
    hub->kill(signal);
    int64_t exit = hub->waitForExit();
    EXPECT_EQ(exit, signal == SIGTERM ? 0 : -SIGKILL) << hub->err();
    EXPECT_TRUE(runLoopUntil(
        loop, [&] { return processEnded(modules[0]); }, fn::Duration::seconds(2)))
        << "module process " << modules[0] << " outlived its hub";
    if (signal == SIGTERM) {
      EXPECT_FALSE(fn::File(dir + "/pipe").exists());
      EXPECT_FALSE(fn::File(dir + "/lumaren/hub.pipe").exists());
    }
  }
}

TEST_F(HubAppTest, ABadConfigurationStopsTheHubWithTheFileNamed) {
  startHub(R"({"modules": [{"name": "greeter", "launchFirst": true}]})");
  EXPECT_EQ(hub->waitForExit(), 1);
  EXPECT_NE(hub->err().find("only in-process modules can be launched first"), fn::String::npos)
      << hub->err();
  EXPECT_NE(hub->err().find(dir + "/hub.json"), fn::String::npos) << hub->err();
}

}  // namespace

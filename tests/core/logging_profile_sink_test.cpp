#include "core/logging_profile_sink.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "child_role.h"
#include "core/ipc/message_bus.h"
#include "core/ipc/module.h"
#include "foundation/file.h"
#include "foundation/log_file_target.h"
#include "foundation/message_bus.h"
#include "ipc/hub_fixture.h"
#include "test_support.h"

namespace core {
namespace {

using testing::TemporaryRoot;
using testing_support::ChildProcess;
using testing_support::runLoopUntil;

void writeProfile(fn::String const& name, std::string_view text) {
  auto& paths = fn::PathManager::instance();
  fn::File(paths.getPath(fn::PathManager::APPLICATION_DATA, "logging_profiles/" + name, true))
      .writeAll(fn::ByteArray(text));
}

fn::String readLog(fn::String const& name) {
  fn::File file(fn::PathManager::instance().getPath(fn::PathManager::LOGS, name));
  return file.exists() ? fn::String(file.readAll().view()) : fn::String("<none>");
}

// What a directory that cannot be listed reports.
char const* const LISTING_FAILED =
    testing_support::isWindows() ? "FindFirstFileW failed" : "opendir failed";

// The child role "--profile-report NAME": sets up the profiles of a process named NAME, logs two
// lines and prints what it has: one line per active profile with its output, then the file
// limits, whether a second set-up gave the same sink and whether a failed reload kept them.
int reportProfiles(int, char** argv) {
  fn::uv::Loop::defaultLoop();
  auto sink = initLoggingProfiles(argv[2]);
  std::vector<fn::String> lines;
  for (auto const& profile : sink->profiles()) {
    fn::String output = sink->logFilePath(profile->fileName());
    fn::String logs = fn::PathManager::instance().getPath(fn::PathManager::LOGS);
    lines.push_back(
        profile->fileName() + " " +
        (output.empty() ? fn::String("console") : fn::String(output.substr(logs.size() + 1))));
    auto inner = profile->sink().cast<ThrottledSink>()->inner();
    auto target = profile->simple() ? inner.cast<SimpleSink>()->target()
                                    : inner.cast<FormattedSink>()->target();
    if (auto file = target.cast<fn::LogFileTarget>())
      lines.push_back(fmt::format("limits {} {}", file->sizeLimit(), file->fileCountLimit()));
  }
  std::sort(lines.begin(), lines.end());
  fn::logging::Category("net.http").log(fn::logging::DBG, "net debug");
  fn::logging::Category("other").log(fn::logging::INF, "other info");
  size_t before = sink->profiles().size();
  testing_support::LogCapture capture;
  sink->reload("/nonexistent-profiles");
  lines.push_back(fmt::format("same {} kept {} reported {}", initLoggingProfiles("x") == sink,
                              sink->profiles().size() == before, capture.contains(LISTING_FAILED)));
  for (auto const& line : lines)
    fmt::print("{}\n", line);
  return 0;
}

[[maybe_unused]] bool const reportRole =
    testing_support::registerChildRole("--profile-report", &reportProfiles);

TEST(LoggingProfileSink, ChoosesProfilesForTheProcessAndUserWhateverTheDirectoryOrder) {
  fn::String user = fn::Environment::userName();
  ASSERT_FALSE(user.empty());
  std::vector<std::pair<fn::String, std::string_view>> files = {
      {"console", "enabled=true\nthreshold=7\n"},
      {"Console." + user, "enabled=true\nthreshold=1\n"},
      {"console.somebody-else", "enabled=true\n"},
      {"memoryDump", "enabled=true\nthreshold=7\n"},
      {"reporter", "enabled=true\nthreshold=4\nsimple=true\n"},
      {"net", "enabled=true\nthreshold=2\nthreshold.net=5\n"},
  };
  fn::String expected = fmt::format(
      "Console.{} console\n"
      "limits 1048576 9\n"
      "limits 1048576 9\n"
      "net reporter.net.log\n"
      "reporter reporter.log\n"
      "same true kept true reported true\n",
      user);
  for (bool reversed : {false, true}) {
    TemporaryRoot root;
    if (reversed)
      std::reverse(files.begin(), files.end());
    for (auto const& [name, text] : files)
      writeProfile(name, text);
    EXPECT_EQ(testing::runToEnd({"--profile-report", "reporter"}).out, expected);
    // The failed reload's error went to the profiles it kept.
    EXPECT_TRUE(readLog("reporter.log")
                    .startsWith(fmt::format("other info\r\nUnhandled exception: FileException: {}",
                                            LISTING_FAILED)))
        << readLog("reporter.log");
    fn::String net = readLog("reporter.net.log");
    EXPECT_NE(net.find(" DBG "), fn::String::npos) << net;
    EXPECT_NE(net.find("net debug\r\n"), fn::String::npos) << net;
    EXPECT_EQ(net.find("other info"), fn::String::npos) << net;
    EXPECT_EQ(readLog("reporter.memoryDump.log"), "<none>");
  }
}

fn::logging::Category logVerbose("test.verbose");

// A module process for the verbose-logging test: "--verbose-module PIPE NAME [switch]". It sets
// up its profiles and, told to switch, allows verbose logging before it connects; otherwise it
// logs a DBG line for every "test.log-now" it hears, answering "test.logged". Once connected it
// posts "test.ready".
class VerboseModule : public ipc::Module {
public:
  using ipc::Module::Module;

protected:
  void onConnected() override {
    fn::MessageBus& bus = fn::MessageBus::instance();
    fn::String name = initData().displayName();
    if (initData().userData() != "switch") {
      _listening = bus.listen("test.log-now", [name](fn::String const&, fn::Value const& body) {
        logVerbose.log(fn::logging::DBG, "line {} in {}", body.asInt(), name);
        fn::MessageBus::instance().post("test.logged", name);
      });
    }
    bus.post("test.ready", name);
  }

private:
  fn::Handle _listening;
};

int runVerboseModule(int argc, char** argv) {
  fn::uv::Loop::defaultLoop();
  initLoggingProfiles(argv[3]);
  bool switches = argc > 4;
  if (switches)
    setEnableVerboseLogging(true);
  VerboseModule module(
      ipc::ModuleInitData(argv[2], argv[3], argv[3], switches ? "switch" : "", true));
  module.run();
  return module.exitStatus();
}

[[maybe_unused]] bool const verboseRole =
    testing_support::registerChildRole("--verbose-module", &runVerboseModule);

class VerboseLoggingTest : public testing_support::HubTest {
protected:
  std::unique_ptr<ChildProcess> startModule(fn::String const& name, bool switches = false) {
    std::vector<fn::String> arguments{"--verbose-module", hub().pipePath(), name};
    if (switches)
      arguments.push_back("switch");
    auto child = ChildProcess::startRole(loop, arguments);
    EXPECT_TRUE(runLoopUntil(loop, [&] { return std::ranges::count(ready, name) > 0; })) << name;
    return child;
  }
  /// Asks every listening module to log line `line` and waits for `count` of them to say so.
  void logLine(int line, size_t count) {
    logged.clear();
    bus->post("test.log-now", line);
    EXPECT_TRUE(runLoopUntil(loop, [&] { return logged.size() == count; })) << line;
  }

  TemporaryRoot root;
  fn::AutoPtr<ipc::MessageBus> bus;
  std::vector<fn::String> ready, logged;
  std::vector<fn::Handle> listening;
};

TEST_F(VerboseLoggingTest, SwitchedInOneProcessSeenInOthersAndInLaterOnes) {
  writeProfile("trace", "enabled=true\nverbose=true\nthreshold=7\n");
  ipc::MessageBus::lookup(hub().worker()).then([&](fn::AutoPtr<ipc::MessageBus> found) {
    bus = found;
  });
  ASSERT_TRUE(runLoopUntil(loop, [&] { return bool(bus); }));
  for (auto [name, into] : {std::pair{"test.ready", &ready}, {"test.logged", &logged}}) {
    listening.push_back(bus->listen(name, [into](fn::String const&, fn::Value const& body) {
      into->push_back(body.asString());
    }));
  }

  auto early = startModule("early");
  logLine(1, 1);
  // The switch is made before the switching process reaches the hub.
  auto switcher = startModule("switcher", true);
  auto const& sticky = hub().messageBus()->stickyMessages();
  ASSERT_TRUE(runLoopUntil(
      loop, [&] { return sticky.contains(LoggingProfileSink::ALLOW_VERBOSE_LOGGING); }));
  logLine(2, 1);
  auto late = startModule("late");
  logLine(3, 2);
  bus->post(LoggingProfileSink::ALLOW_VERBOSE_LOGGING, false, true);
  logLine(4, 2);

  // Without their hub the modules end, and their files get what they still held: the lines
  // logged while verbose logging was on.
  stopHub();
  for (auto* child : {early.get(), switcher.get(), late.get()})
    EXPECT_EQ(child->waitForExit(), 0);
  auto linesIn = [](fn::String const& name) {
    fn::String log = readLog(name + ".trace.log"), found;
    for (int line = 1; line <= 4; ++line) {
      if (log.find(fmt::format("line {} in {}\r\n", line, name)) != fn::String::npos)
        found += fmt::format("{} ", line);
    }
    return found;
  };
  EXPECT_EQ(linesIn("early"), "2 3 ");
  EXPECT_EQ(linesIn("late"), "3 ");
}

}  // namespace
}  // namespace core

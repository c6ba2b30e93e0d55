// lumaren-ctl end to end: the real tool against a hub in this process and a module process
// that registers "TestService" (tests/support/test_module.h); its log commands write through
// its profiles, pack the archive and switch verbose logging through that hub.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "child_process.h"
#include "core/app_info.h"
#include "core/inspector_registry.h"
#include "core/ipc/message_bus.h"
#include "core/ipc/registry.h"
#include "core/logging_profile_sink.h"
#include "foundation/file.h"
#include "foundation/path_manager.h"
#include "hub_fixture.h"
#include "platform.h"
#include "test_module.h"
#include "test_support.h"

using namespace testing_support;
using Json = nlohmann::json;

namespace {

struct CtlRun {
  int64_t status;
  fn::String out, err;
};

class CtlTest : public HubTest {
protected:
  void SetUp() override {
    core::AppInfo::initialize(core::AppInfo::App::LUMAREN);
    HubTest::SetUp();
    hub().worker().registerObjectReferenceClass<ServiceReference>();
  }

  void TearDown() override {
    service.reset();
    HubTest::TearDown();
  }

  /// The tool with `arguments`, told the hub's pipe unless they or `environment` name one.
  std::unique_ptr<ChildProcess> startCtl(std::vector<fn::String> arguments,
                                         std::vector<fn::String> environment = {},
                                         fn::String input = {}) {
    if (environment.empty() && !arguments[0].startsWith("--pipe"))
      arguments.insert(arguments.begin(), {"--pipe", hub().pipePath()});
    return ChildProcess::start(loop, {.file = siblingProgram("lumaren-ctl"),
                                      .arguments = std::move(arguments),
                                      .environment = std::move(environment),
                                      .capture = true,
                                      .input = std::move(input)});
  }

  CtlRun ctl(std::vector<fn::String> arguments, std::vector<fn::String> environment = {}) {
    auto child = startCtl(std::move(arguments), std::move(environment));
    int64_t status = child->waitForExit();
    return {status, child->out(), child->err()};
  }

  /// Runs the tool, which must end with `status` and print `error` (whole lines) or a text
  /// that starts with it.
  void expectError(std::vector<fn::String> arguments, int64_t status, fn::String const& error) {
    CtlRun run = ctl(std::move(arguments));
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_TRUE(error.endsWith("\n") ? run.err == error : run.err.startsWith(error)) << run.err;
  }

  static Json json(fn::String const& text) { return Json::parse(std::string_view(text)); }
  /// The JSON lines of `text` by their `key`.
  static std::map<std::string, Json> byKey(fn::String const& text, char const* key) {
    std::map<std::string, Json> found;
    for (auto const& line : text.trim().split("\n"))
      found[json(line)[key]] = json(line);
    return found;
  }

  bool serviceEntries(size_t count) {
    return runLoopUntil(loop, [&] { return hub().registry()->entryCount("TestService") == count; });
  }

  /// Ends a tool that runs until interrupted; Windows cannot interrupt a process of another
  /// console, so it is ended instead.
  static void interrupt(ChildProcess& tool) {
    tool.kill(isWindows() ? SIGKILL : SIGINT);
    EXPECT_EQ(tool.waitForExit(), isWindows() ? -SIGKILL : 0) << tool.err();
  }

  std::unique_ptr<ChildProcess> service;
};

class CtlLogTest : public CtlTest {
protected:
  core::testing::TemporaryRoot root;
};

}  // namespace

TEST_F(CtlTest, CallPrintsTheResultOrTheServicesErrorAsJson) {
  service = startTestModule(loop, "svc", hub().pipePath(), {"register=0"});
  ASSERT_TRUE(serviceEntries(1));
  // Bytes come back as base64, typed byte arrays tagged.
  auto echoed = ctl({"call", "TestService", "echo",
                     R"({"list": [1, -2.5, "x"], "n": null, "b": {"__type__": "buffer",
                         "value": "AAEC"}, "t": {"__type__": "buffer", "value": "AAEC",
                         "mimeType": "image/png"}})"});
  EXPECT_EQ(echoed.status, 0) << echoed.err;
  EXPECT_EQ(json(echoed.out), Json::parse(R"({"list": [1, -2.5, "x"], "n": null, "b": "AAEC",
      "t": {"__type__": "buffer", "value": "AAEC", "mimeType": "image/png"}})"));

  // Tagged arguments arrive as real fractions and typed byte arrays in the service.
  auto described = ctl({"call", "TestService", "describe",
                        R"({"fraction": {"__type__": "fraction", "num": 16, "den": 9},
                            "typed": {"__type__": "buffer", "value": "AAEC",
                                      "mimeType": "video/mp2t"}})"});
  EXPECT_EQ(json(described.out),
            Json::parse(R"({"fraction": "16/9", "mimeType": "video/mp2t", "byteCount": 3})"));

  auto found = ctl({"lookup", "TestService"});
  EXPECT_EQ(found.status, 0) << found.err;
  EXPECT_EQ(json(found.out)["class"], "TestService");

  auto failed = ctl({"call", "TestService", "failStructured"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.out, "");
  Json error = json(failed.err);
  EXPECT_EQ(error["TYPE"], "FN_EXCEPTION");
  EXPECT_EQ(error["CLASS_NAME"], "FileException");
  EXPECT_EQ(error["MESSAGE"], "cannot open the recording");
  EXPECT_EQ(error["PATH"], "/var/media/rec7.ts");
  EXPECT_EQ(error["STACK_TRACE"][0]["symbolName"], "core::Recorder::open");
  // A class this process does not know keeps its name: what the service sent is printed.
  auto unknown = ctl({"call", "TestService", "failUnknownClass"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(json(unknown.err)["CLASS_NAME"], "ModuleOnlyException");

  expectError({"--timeout", "0.5", "call", "TestService", "hold"}, 7,
              "lumaren-ctl: no answer from TestService.hold within 0.5 s\n");
}

TEST_F(CtlTest, BadInputIsRefusedBeforeAnyConnection) {
  // A pipe nobody listens on: these must fail for their own reason, not for the pipe.
  expectError({"--pipe", "/nonexistent/pipe", "call", "TestService", "echo", "{bad"}, 3,
              "lumaren-ctl: bad JSON argument: Malformed JSON");
  expectError({"--pipe", "/nonexistent/pipe", "post", "ns", R"({"__type__": "date"})"}, 3,
              "lumaren-ctl: bad JSON message body: ");
  expectError({"frobnicate"}, 2,
              "lumaren-ctl: unknown command \"frobnicate\" (see lumaren-ctl --help)\n");
  EXPECT_EQ(ctl({"call", "TestService"}).status, 2);
  EXPECT_EQ(ctl({"--timeout", "soon", "lookup", "TestService"}).status, 2);
  auto help = ctl({"--help"});
  EXPECT_TRUE(help.status == 0 && help.out.startsWith("usage: lumaren-ctl")) << help.out;
}

TEST_F(CtlTest, FindsTheHubOrSaysWhyNotAndEndsWhenTheHubGoes) {
  fn::String missing = fn::String(::testing::TempDir()) + "ctl-no-hub";
  expectError({"--pipe", missing, "lookup", "TestService"}, 4,
              "lumaren-ctl: cannot connect to the hub at " + missing +
                  ": no such file or directory (ENOENT)\n");

  // The registry's own words when nothing of the class turns up in time.
  expectError({"--timeout", "0.3", "lookup", "NoSuchService"}, 6,
              "lumaren-ctl: Object of class NoSuchService is not available. Try restarting ");

  // The pipe from a pipe file and from the environment; the hub's own suite finds it through
  // the default pipe file in the runtime directory.
  fn::String pipeFile = fn::String(::testing::TempDir()) + "ctl-hub.pipe";
  fn::File(pipeFile).writeAll(fn::ByteArray(hub().pipePath() + "\n"), 0600);
  EXPECT_EQ(ctl({"--pipe-file", pipeFile, "lookup", "ipc::MessageBus"}).status, 0);
  EXPECT_EQ(ctl({"lookup", "ipc::MessageBus"}, {"LUMAREN_PIPE=" + hub().pipePath()}).status, 0);
  fn::String runtime = fn::String(::testing::TempDir()) + "ctl-runtime";
  fn::File(runtime).createDirectories(0700);
  fn::File(runtime + "/lumaren/hub.pipe").remove();
  auto noFile = ctl({"lookup", "ipc::MessageBus"}, {"XDG_RUNTIME_DIR=" + runtime});
  EXPECT_EQ(noFile.status, 4);
  EXPECT_TRUE(noFile.err.startsWith("lumaren-ctl: cannot find the hub: there is no pipe file " +
                                    runtime + "/lumaren/hub.pipe"))
      << noFile.err;

  // A command still waiting when the hub goes ends with that.
  auto waiting = startCtl({"--timeout", "30", "lookup", "NoSuchService"});
  ASSERT_TRUE(runLoopUntil(loop, [this] { return hub().registry()->waiterCount() == 1; }));
  fn::String pipe = hub().pipePath();
  stopHub();
  EXPECT_EQ(waiting->waitForExit(), 5);
  EXPECT_TRUE(waiting->err().startsWith("lumaren-ctl: lost the hub at " + pipe + ": "))
      << waiting->err();
}

TEST_F(CtlTest, PostedStickyMessageIsWatchedLaterAndLiveOnesFollow) {
  auto posted = ctl({"post", "test.config", R"({"v": 1})", "--sticky"});
  EXPECT_EQ(posted.status, 0) << posted.err;
  // The tool left only after the hub relayed the message, so both watches start with it.
  auto twice = startCtl({"watch", "test.config", "--count", "2"});
  auto untilStopped = startCtl({"watch", "test.config"});
  ASSERT_TRUE(
      runLoopUntil(loop, [&] { return !twice->out().empty() && !untilStopped->out().empty(); }));
  EXPECT_EQ(ctl({"post", "test.config", "2"}).status, 0);
  EXPECT_EQ(twice->waitForExit(), 0) << twice->err();
  EXPECT_EQ(twice->out(),
            "{\"body\":{\"v\":1},\"namespace\":\"test.config\"}\n"
            "{\"body\":2,\"namespace\":\"test.config\"}\n");

  // Without a count the watch runs until interrupted, and then ends normally.
  ASSERT_TRUE(runLoopUntil(loop, [&] { return untilStopped->out() == twice->out(); }));
  interrupt(*untilStopped);
}

TEST_F(CtlTest, InspectorsAreListedAndBrowsed) {
  service = startTestModule(loop, "svc", hub().pipePath(), {"inspector=tuner"});
  ASSERT_TRUE(runLoopUntil(loop, [&] { return hub().inspectorRegistry()->inspectorCount() == 2; }));
  fn::String tuner = fn::ByteArray(fn::String("tuner")).SHA256().base64();

  auto listed = ctl({"inspectors"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  auto lines = listed.out.trim().split("\n");
  EXPECT_EQ(std::set(lines.begin(), lines.end()),
            (std::set<fn::String>{tuner + "  tuner",
                                  fn::ByteArray(fn::String("Hub")).SHA256().base64() + "  Hub"}));

  // The module's "elsewhere" redirects to "details", which is asked with the action of the
  // view the redirect was followed from (null here).
  auto followed = ctl({"inspect", tuner, "--follow", "3"});
  EXPECT_EQ(followed.status, 0) << followed.err;
  EXPECT_EQ(followed.out,
            "# null\n1. module tuner\n2. details -> \"details\"\n3. elsewhere -> \"elsewhere\"\n"
            "# \"details\"\n1. back\n");

  // The same one view at a time, until an empty line.
  auto browsing = startCtl({"inspect", tuner, "-i"}, {}, "1\n9\nx\n2\n\n3\n");
  EXPECT_EQ(browsing->waitForExit(), 0) << browsing->err();
  EXPECT_EQ(std::ranges::count(browsing->out(), '#'), 2) << browsing->out();
  EXPECT_EQ(browsing->err(),
            "lumaren-ctl: item 1 leads nowhere\n"
            "lumaren-ctl: no item 9 in this view of 3 items\n"
            "lumaren-ctl: \"x\" is not an item number\n");

  expectError({"inspect", "no-such-key"}, 6, "lumaren-ctl: no inspector with key no-such-key\n");
  expectError({"inspect", tuner, "\"circle\""}, 1,
              "lumaren-ctl: the inspector " + tuner + " redirected more than 16 times in a row\n");
}

TEST_F(CtlTest, HashPrintsALinePerFileLikeSha1sumWithoutAHub) {
  fn::String dir = fn::String(::testing::TempDir());
  fn::String hello = dir + "ctl-hash-hello", missing = dir + "ctl-hash-missing";
  fn::File(hello).writeAll(fn::ByteArray(std::string_view("hello")));
  // SHA-1 of the length as 8 little-endian bytes and the content, from Python's hashlib.
  fn::String const HELLO = "77d8d459c5fab783862eecb74ad4a53afd04c45d";

  auto good = ctl({"--pipe", "/nonexistent/pipe", "hash", hello, hello});
  EXPECT_EQ(good.status, 0) << good.err;
  EXPECT_EQ(good.out, HELLO + "  " + hello + "\n" + HELLO + "  " + hello + "\n");
  auto bad = ctl({"--pipe", "/nonexistent/pipe", "hash", missing, hello});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.out, HELLO + "  " + hello + "\n");
  EXPECT_TRUE(bad.err.startsWith(
      "lumaren-ctl: FileException: open failed: No such file or directory [path " + missing + "]"))
      << bad.err;
  fn::File(hello).remove();
}

TEST_F(CtlTest, WorkersListAndMonitorShowTheRunningHub) {
  service = startTestModule(loop, "svc", hub().pipePath(), {"register=3"});
  ASSERT_TRUE(serviceEntries(1));
  auto workers = ctl({"workers"});
  EXPECT_EQ(workers.status, 0) << workers.err;
  auto byName = byKey(workers.out, "name");
  ASSERT_EQ(byName.size(), 3u) << workers.out;  // the hub's own, the service, the tool itself
  Json svc = byName.at("svc");
  EXPECT_EQ(svc["pid"], service->pid());
  EXPECT_GT(svc["recordsIn"], 0);
  EXPECT_GT(svc["bytesOut"], 0);
  EXPECT_EQ(svc["queued"], 0);
  EXPECT_EQ(byName.at("DispatcherWorker")["id"], 0);
  int svcId = svc["id"];

  auto listed = ctl({"list"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  auto entries = byKey(listed.out, "class");
  EXPECT_EQ(entries.at("TestService")["priority"], 3);
  EXPECT_EQ(entries.at("TestService")["owner"], svcId);
  EXPECT_EQ(entries.at("TestService")["ownerName"], "svc");
  EXPECT_EQ(entries.at("TestService")["hidden"], false);
  EXPECT_EQ(entries.at("ipc::HubMonitor")["owner"], 0);

  // A monitor of the service's records sees a call reach it, and the answer leave it.
  auto monitor = startCtl({"monitor", "--worker", fmt::format("{}", svcId)});
  ASSERT_TRUE(runLoopUntil(loop, [&] { return monitor->err().contains("monitoring"); }))
      << monitor->err();
  EXPECT_EQ(ctl({"call", "TestService", "echo", "\"ping-me\""}).status, 0);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return monitor->out().contains("ping-me"); }));
  auto lines = monitor->out().split("\n");
  auto answer = std::find_if(lines.begin(), lines.end(), [&](fn::String const& line) {
    return line.startsWith(fmt::format("from svc ({}) ", svcId)) &&
           line.contains("\"1-TYPE\": \"4-MESSAGE\"") && line.contains("ping-me");
  });
  EXPECT_NE(answer, lines.end()) << monitor->out();
  EXPECT_TRUE(hub().monitored());
  interrupt(*monitor);
  // Gone with its tool: the hub routes without it again.
  EXPECT_TRUE(runLoopUntil(loop, [&] { return !hub().monitored(); }));
  // The service goes, and with it its line. Its registry entry may go before its connection
  // does, so the list is read once only the hub's own worker is left.
  service.reset();
  ASSERT_TRUE(serviceEntries(0));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return hub().connectionCount() == 1; }));
  auto after = byKey(ctl({"workers"}).out, "name");
  EXPECT_TRUE(after.size() == 2 && !after.contains("svc"));
}

TEST_F(CtlLogTest, WrittenLinesReachTheArchiveAndVerboseLoggingReachesTheHub) {
  auto& paths = fn::PathManager::instance();
  fn::File(paths.getPath(fn::PathManager::APPLICATION_DATA, "logging_profiles/main", true))
      .writeAll(fn::ByteArray("enabled = true\nthreshold = 4\nforbiddenTags = noise\n"));
  EXPECT_EQ(ctl({"log", "write", "--category", "net.http", "--priority", "2", "--tag", "t", "hello",
                 "world"})
                .status,
            0);
  EXPECT_EQ(ctl({"log", "write", "--tag", "noise", "dropped"}).status, 0);
  fn::String logFile = paths.getPath(fn::PathManager::LOGS, "lumaren-ctl.main.log");
  EXPECT_EQ(ctl({"log", "profiles"}).out,
            "{\"enabled\":true,\"name\":\"\",\"output\":\"" + jsonEscaped(logFile) +
                "\",\"profile\":\"main\",\"simple\":false,\"threshold\":4,\"verbose\":false}\n");

  // The archive holds every log file as it is (the archive's own suite reads it back).
  CtlRun archive = ctl({"log", "archive"});
  ASSERT_EQ(archive.status, 0) << archive.err;
  EXPECT_TRUE(fn::File(archive.out.trim()).exists());
  fn::String entry(fn::File(logFile).readAll().view());
  EXPECT_TRUE(std::regex_search(
      entry, std::regex("\r\n\\d\\d:\\d\\d:\\d\\d WRN [0-9a-f]{2} log_commands:\\d+ +(- )+hello "
                        "world\r\n$")))
      << entry;
  EXPECT_EQ(entry.find("dropped"), fn::String::npos);

  EXPECT_EQ(ctl({"log", "verbose", "on"}).status, 0);
  auto const& sticky = hub().messageBus()->stickyMessages();
  ASSERT_TRUE(sticky.contains(core::LoggingProfileSink::ALLOW_VERBOSE_LOGGING));
  EXPECT_EQ(sticky.at(core::LoggingProfileSink::ALLOW_VERBOSE_LOGGING), fn::Value(true));

  for (auto const& [arguments, message] :
       std::vector<std::pair<std::vector<fn::String>, char const*>>{
           {{"log", "verbose", "maybe"}, "log verbose wants on or off, not \"maybe\""},
           {{"log", "write", "--priority", "9", "x"}, "--priority wants a number from 1"},
           {{"log", "archive", "--tag", "x"}, "--category, --priority and --tag go with log write"},
           {{"log", "rotate"}, "unknown log action \"rotate\""}})
    expectError(arguments, 2, fn::String("lumaren-ctl: ") + message);

  // Where the archive cannot go, the archive's own error line says why.
  std::filesystem::remove_all(std::string(root.file("documents")));
  fn::File(root.file("documents")).writeAll(fn::ByteArray("in the way"));
  CtlRun failed = ctl({"log", "archive"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_TRUE(
      failed.err.contains("ERR core.logArchive: Unexpected exception while zipping and "
                          "copying logs: FileException: mkdir failed"))
      << failed.err;
}

// lumaren-ctl end to end: the real tool against a hub in this process and a module process
// that registers "TestService" (tests/support/test_module.h).

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>
#include <set>

#include "child_process.h"
#include "core/app_info.h"
#include "core/inspector_registry.h"
#include "core/ipc/registry.h"
#include "foundation/file.h"
#include "hub_fixture.h"
#include "platform.h"
#include "test_module.h"

using namespace testing_support;
using Json = nlohmann::json;

namespace {

// An inspector of the test's own process that redirects to itself forever.
class CircleInspector : public core::Inspector {
public:
  core::InspectionResult inspect(fn::Value const&, fn::Value const&) override {
    return core::InspectionResult::redirectTo("circle");
  }
};

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

  static Json json(fn::String const& text) { return Json::parse(std::string_view(text)); }

  std::unique_ptr<ChildProcess> service;
};

}  // namespace

TEST_F(CtlTest, CallPrintsTheResultOrTheServicesErrorAsJson) {
  service = startTestModule(loop, "svc", hub().pipePath(), {"register=0"});
  ASSERT_TRUE(
      runLoopUntil(loop, [this] { return hub().registry()->entryCount("TestService") == 1; }));
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

  auto held = ctl({"--timeout", "0.5", "call", "TestService", "hold"});
  EXPECT_EQ(held.status, 7);
  EXPECT_EQ(held.err, "lumaren-ctl: no answer from TestService.hold within 0.5 s\n");
}

TEST_F(CtlTest, BadInputIsRefusedBeforeAnyConnection) {
  // A pipe nobody listens on: these must fail for their own reason, not for the pipe.
  auto badJson = ctl({"--pipe", "/nonexistent/pipe", "call", "TestService", "echo", "{bad"});
  EXPECT_EQ(badJson.status, 3);
  EXPECT_TRUE(badJson.err.startsWith("lumaren-ctl: bad JSON argument: Malformed JSON"))
      << badJson.err;
  auto badTag = ctl({"--pipe", "/nonexistent/pipe", "post", "ns", R"({"__type__": "date"})"});
  EXPECT_EQ(badTag.status, 3);
  EXPECT_TRUE(badTag.err.startsWith("lumaren-ctl: bad JSON message body: ")) << badTag.err;

  auto unknownCommand = ctl({"frobnicate"});
  EXPECT_EQ(unknownCommand.status, 2);
  EXPECT_EQ(unknownCommand.err,
            "lumaren-ctl: unknown command \"frobnicate\" (see lumaren-ctl --help)\n");
  EXPECT_EQ(ctl({"call", "TestService"}).status, 2);
  EXPECT_EQ(ctl({"--timeout", "soon", "lookup", "TestService"}).status, 2);
  auto help = ctl({"--help"});
  EXPECT_TRUE(help.status == 0 && help.out.startsWith("usage: lumaren-ctl")) << help.out;
}

TEST_F(CtlTest, FindsTheHubOrSaysWhyNot) {
  fn::String missing = fn::String(::testing::TempDir()) + "ctl-no-hub";
  auto noHub = ctl({"--pipe", missing, "lookup", "TestService"});
  EXPECT_EQ(noHub.status, 4);
  EXPECT_EQ(noHub.err, "lumaren-ctl: cannot connect to the hub at " + missing +
                           ": no such file or directory (ENOENT)\n");

  // The registry's own words when nothing of the class turns up in time.
  auto notThere = ctl({"--timeout", "0.3", "lookup", "NoSuchService"});
  EXPECT_EQ(notThere.status, 6);
  EXPECT_TRUE(notThere.err.startsWith(
      "lumaren-ctl: Object of class NoSuchService is not available. Try restarting "))
      << notThere.err;

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
}

TEST_F(CtlTest, HubGoingAwayEndsTheCommand) {
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
  // Windows cannot interrupt a process of another console; it is ended instead.
  untilStopped->kill(isWindows() ? SIGKILL : SIGINT);
  EXPECT_EQ(untilStopped->waitForExit(), isWindows() ? -SIGKILL : 0) << untilStopped->err();
}

TEST_F(CtlTest, InspectorsAreListedAndBrowsed) {
  service = startTestModule(loop, "svc", hub().pipePath(), {"inspector=tuner"});
  fn::AutoPtr<core::InspectorRegistry> registry;
  core::InspectorRegistry::lookup(hub().worker()).then([&](auto found) { registry = found; });
  ASSERT_TRUE(runLoopUntil(loop, [&] { return registry.get() != nullptr; }));
  std::optional<unsigned> id;
  registry->registerInspector("circle", fn::AutoPtr<core::Inspector>(new CircleInspector))
      .then([&](unsigned registered) { id = registered; });
  ASSERT_TRUE(
      runLoopUntil(loop, [&] { return id && hub().inspectorRegistry()->inspectorCount() == 3; }));
  fn::String circle = registry->keyOf(*id);
  fn::String tuner = fn::ByteArray(fn::String("tuner")).SHA256().base64();

  auto listed = ctl({"inspectors"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  auto lines = listed.out.trim().split("\n");
  EXPECT_EQ(std::set(lines.begin(), lines.end()),
            (std::set<fn::String>{circle + "  circle", tuner + "  tuner",
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

  auto unknown = ctl({"inspect", "no-such-key"});
  EXPECT_EQ(unknown.status, 6);
  EXPECT_EQ(unknown.err, "lumaren-ctl: no inspector with key no-such-key\n");
  auto circling = ctl({"inspect", circle, "\"circle\""});
  EXPECT_EQ(circling.status, 1);
  EXPECT_EQ(circling.err,
            "lumaren-ctl: the inspector " + circle + " redirected more than 16 times in a row\n");
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
  EXPECT_TRUE(
      bad.err.startsWith("lumaren-ctl: FileException: open failed: No such file or "
                         "directory [path " +
                         missing + "]"))
      << bad.err;
  fn::File(hello).remove();
}

TEST_F(CtlTest, WorkersListAndMonitorShowTheRunningHub) {
  service = startTestModule(loop, "svc", hub().pipePath(), {"register=3"});
  ASSERT_TRUE(
      runLoopUntil(loop, [this] { return hub().registry()->entryCount("TestService") == 1; }));
  auto workers = ctl({"workers"});
  EXPECT_EQ(workers.status, 0) << workers.err;
  std::map<std::string, Json> byName;
  for (auto const& line : workers.out.trim().split("\n")) {
    Json worker = json(line);
    byName[worker["name"]] = worker;
  }
  ASSERT_EQ(byName.size(), 3u) << workers.out;  // the hub's own, the service, the tool itself
  Json svc = byName.at("svc");
  EXPECT_EQ(svc["pid"], service->pid());
  EXPECT_GT(svc["recordsIn"], 0);
  EXPECT_GT(svc["bytesOut"], 0);
  EXPECT_EQ(svc["queued"], 0);
  EXPECT_EQ(byName.at("DispatcherWorker")["id"], 0);
  EXPECT_GT(byName.at("lumaren-ctl")["pid"], 0);
  int svcId = svc["id"];

  auto listed = ctl({"list"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  std::map<std::string, Json> entries;
  for (auto const& line : listed.out.trim().split("\n")) {
    Json entry = json(line);
    entries[entry["class"]] = entry;
  }
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
  // Windows cannot interrupt a process of another console; it is ended instead.
  monitor->kill(isWindows() ? SIGKILL : SIGINT);
  EXPECT_EQ(monitor->waitForExit(), isWindows() ? -SIGKILL : 0) << monitor->err();
  // Gone with its tool: the hub routes without it again.
  EXPECT_TRUE(runLoopUntil(loop, [&] { return !hub().monitored(); }));
  // The service goes: the next listings no longer have it, nor its entry.
  service.reset();
  ASSERT_TRUE(
      runLoopUntil(loop, [this] { return hub().registry()->entryCount("TestService") == 0; }));
  auto after = ctl({"workers"});
  EXPECT_EQ(after.out.trim().split("\n").size(), 2u) << after.out;
  EXPECT_FALSE(after.out.contains("\"svc\"")) << after.out;
  EXPECT_FALSE(ctl({"list"}).out.contains("TestService"));
}

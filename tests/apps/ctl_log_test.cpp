// lumaren-ctl log end to end: the real tool writes through its profiles, packs the archive and
// switches verbose logging through a hub in this process.

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "child_process.h"
#include "core/app_info.h"
#include "core/ipc/message_bus.h"
#include "core/logging_profile_sink.h"
#include "foundation/file.h"
#include "foundation/path_manager.h"
#include "hub_fixture.h"
#include "platform.h"
#include "test_support.h"

using namespace testing_support;

namespace {

struct CtlRun {
  int64_t status;
  fn::String out, err;
};

class CtlLogTest : public HubTest {
protected:
  CtlRun ctl(std::vector<fn::String> arguments) {
    arguments.insert(arguments.begin(), {"--pipe", hub().pipePath()});
    auto child = ChildProcess::start(loop, {.file = siblingProgram("lumaren-ctl"),
                                            .arguments = std::move(arguments),
                                            .capture = true});
    int64_t status = child->waitForExit();
    return {status, child->out(), child->err()};
  }
  /// The text of `entry` in the ZIP archive `archive`, as Python's zipfile reads it.
  fn::String entryOf(fn::String const& archive, fn::String const& entry) {
    auto python = ChildProcess::start(
        loop,
        {.file = "/usr/bin/python3",
         .arguments = {"-c",
                       "import sys, zipfile; "
                       "sys.stdout.buffer.write(zipfile.ZipFile(sys.argv[1]).read(sys.argv[2]))",
                       archive, entry},
         .capture = true});
    EXPECT_EQ(python->waitForExit(), 0) << python->err();
    return python->out();
  }

  core::testing::TemporaryRoot root;
};

TEST_F(CtlLogTest, WrittenLinesReachTheArchiveAndVerboseLoggingReachesTheHub) {
  fn::File(fn::PathManager::instance().getPath(fn::PathManager::APPLICATION_DATA,
                                               "logging_profiles/main", true))
      .writeAll(fn::ByteArray("enabled = true\nthreshold = 4\nforbiddenTags = noise\n"));
  EXPECT_EQ(ctl({"log", "write", "--category", "net.http", "--priority", "2", "--tag", "t", "hello",
                 "world"})
                .status,
            0);
  EXPECT_EQ(ctl({"log", "write", "--tag", "noise", "dropped"}).status, 0);
  fn::String logFile =
      fn::PathManager::instance().getPath(fn::PathManager::LOGS, "lumaren-ctl.main.log");
  CtlRun profiles = ctl({"log", "profiles"});
  EXPECT_EQ(profiles.out,
            "{\"enabled\":true,\"name\":\"\",\"output\":\"" + jsonEscaped(logFile) +
                "\",\"profile\":\"main\",\"simple\":false,\"threshold\":4,\"verbose\":false}\n");

  CtlRun archive = ctl({"log", "archive"});
  ASSERT_EQ(archive.status, 0) << archive.err;
  // The archive is read by Python, which Wine does not run; the log file stands in for it.
  fn::String entry = isWindows() ? fn::String(fn::File(logFile).readAll().view())
                                 : entryOf(archive.out.trim(), "lumaren-ctl.main.log");
  EXPECT_TRUE(fn::File(archive.out.trim()).exists());
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
           {{"log", "rotate"}, "unknown log action \"rotate\""}}) {
    CtlRun bad = ctl(arguments);
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find(message), fn::String::npos) << bad.err;
  }

  // Where the archive cannot go, the archive's own error line says why.
  std::filesystem::remove_all(std::string(root.file("documents")));
  fn::File(root.file("documents")).writeAll(fn::ByteArray("in the way"));
  CtlRun failed = ctl({"log", "archive"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_NE(failed.err.find("ERR core.logArchive: Unexpected exception while zipping and copying "
                            "logs: FileException: mkdir failed"),
            fn::String::npos)
      << failed.err;
}

}  // namespace

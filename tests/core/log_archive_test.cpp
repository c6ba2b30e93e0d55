#include "core/log_archive.h"

#include <gtest/gtest.h>

#include <regex>

#include "core/app_info.h"
#include "foundation/file.h"
#include "test_support.h"

namespace core {
namespace {

using testing::LogCapture;
using testing::TemporaryRoot;

// Reads the archive with Python's zipfile, an implementation of its own, and compares every
// entry with the file of that name in the log directory.
constexpr char const* CHECK_ARCHIVE = R"(
import os, sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as z:
    assert z.testzip() is None
    for info in z.infolist():
        same = z.read(info) == open(os.path.join(sys.argv[2], info.filename), 'rb').read()
        print(info.filename, info.compress_type, same)
print('entries', len(z.infolist()))
)";

fn::String logFile(std::string_view name) {
  return fn::PathManager::instance().getPath(fn::PathManager::LOGS, name);
}

fn::String checkArchive(fn::String const& archive) {
  return testing::runToEnd({"-c", CHECK_ARCHIVE, archive, logFile("")}, "/usr/bin/python3").out;
}

TEST(LogArchive, EveryLogFileBecomesADeflatedEntryOfItsOwnNameOrTheFailureIsLogged) {
  TemporaryRoot root;
  AppInfo::initialize(AppInfo::App::LUMAREN);
  {
    // The documents folder cannot be made: a file stands where it should be.
    fn::File(root.file("documents")).writeAll(fn::ByteArray("in the way"));
    LogCapture log;
    EXPECT_EQ(LogArchive::createLogArchive(), "");
    auto lines = log.linesOf("core.logArchive");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, fn::logging::ERR);
    EXPECT_TRUE(lines[0].text.startsWith(
        "Unexpected exception while zipping and copying logs: FileException: mkdir failed"))
        << lines[0].text;
    fn::File(root.file("documents")).remove();
  }

  SKIP_ON_WINDOWS("the independent reader of the archive is Python, which Wine does not run");
  fn::String empty = LogArchive::createLogArchive();
  EXPECT_TRUE(std::regex_match(
      empty,
      std::regex(root.path() +
                 "/documents/Lumaren/LumarenLogs-\\d{4}-\\d\\d-\\d\\d-\\d\\d-\\d\\d-\\d\\d\\.zip")))
      << empty;
  EXPECT_EQ(checkArchive(empty), "entries 0\n");
  fn::File(empty).remove();

  fn::ByteArray binary;
  for (int i = 0; i < 20000; ++i)
    binary.push_back(static_cast<uint8_t>((i * 7919) >> 3));
  fn::File(logFile("hub.log")).writeAll(fn::ByteArray("a line\r\n"));
  fn::File(logFile("hub.log.1")).writeAll(binary);
  fn::File(logFile("empty.log")).writeAll(fn::ByteArray());
  fn::String report = checkArchive(LogArchive::createLogArchive());
  for (char const* line :
       {"hub.log 8 True\n", "hub.log.1 8 True\n", "empty.log 8 True\n", "entries 3\n"})
    EXPECT_NE(report.find(line), fn::String::npos) << report;
}

}  // namespace
}  // namespace core

#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "foundation/date_time.h"
#include "foundation/directory_iterator.h"
#include "foundation/environment.h"
#include "foundation/file.h"
#include "foundation/log_file_target.h"
#include "foundation/logging/category.h"
#include "foundation/stream.h"
#include "log_capture.h"
#include "platform.h"
#include "support.h"

namespace fn {
namespace {

/// Takes DBG from "media" and below, whatever the rules say, and records what reaches it.
struct MediaSink : logging::Sink {
  bool followsRules() const override { return false; }
  int threshold(logging::Category const& category) const override {
    for (auto const* at = &category; at; at = at->parent()) {
      if (at->name() == "media")
        return logging::DBG;
    }
    return 0;
  }
  void logMessage(logging::Category const& category, logging::Message const& message) override {
    std::lock_guard lock(mutex);
    seen.push_back(
        fmt::format("{} {} {} {}:{}", category.name(), message.priority(), message.text(),
                    std::string_view(message.file()).ends_with("logging_test.cpp"), message.tag()));
    threads.push_back(message.threadNumber());
  }
  std::mutex mutex;
  std::vector<String> seen;
  std::vector<unsigned> threads;
};

TEST(Logging, SinksWithThresholdsOfTheirOwnOpenTheGateOnlyForTheirCategories) {
  logging::Category media("media.decoder.h264");
  logging::Category net("net");
  // The sink finds "media" by walking up from here, and ends its walk at the root.
  EXPECT_FALSE(media.enabled(logging::DBG));

  testing_support::LogCapture capture;
  auto sink = makeAuto<MediaSink>();
  auto& manager = logging::CategoryManager::instance();
  manager.registerSink(sink);
  EXPECT_TRUE(media.enabled(logging::DBG));
  EXPECT_FALSE(media.enabled(logging::LOG));
  EXPECT_FALSE(net.enabled(logging::DBG));
  media.log(logging::DBG, "frame {}", 1);
  media.logTagged(logging::INF, "decode", "frame {}", 2);
  std::thread([&] { media.log(logging::ERR, "from a thread"); }).join();
  net.log(logging::DBG, "not for anybody");
  manager.unregisterSink(sink.get());
  media.log(logging::INF, "after unregistering");
  EXPECT_FALSE(media.enabled(logging::DBG));

  EXPECT_EQ(sink->seen, (std::vector<String>{"media.decoder.h264 5 frame 1 true:",
                                             "media.decoder.h264 4 frame 2 true:decode",
                                             "media.decoder.h264 1 from a thread true:"}));
  EXPECT_NE(sink->threads[0], sink->threads[2]);
  // The rules still choose for the capture: INF and more severe.
  std::vector<String> captured;
  for (auto const& line : capture.lines())
    captured.push_back(line.text);
  EXPECT_EQ(captured, (std::vector<String>{"frame 2", "from a thread", "after unregistering"}));
}

TEST(LogFileTarget, RotationKeepsTheCountOfFilesNewestFirst) {
  String dir = testing_support::makeTemporaryDirectory("lumaren-logfile");
  auto read = [&dir](String const& name) {
    File file(dir + "/" + name);
    return file.exists() ? String(file.readAll().view()) : String("<none>");
  };
  auto target = makeAuto<LogFileTarget>(dir + "/p.log");
  target->setSizeLimit(10);
  target->setFileCountLimit(9);
  for (char c = 'a'; c <= 'l'; ++c)
    target->write(String(6, c) + "\n", true);
  // An urgent text is in the file when write() returns; the oldest three are gone.
  std::vector<String> expected{"p.log llllll\n"};
  for (char c = 'k'; c >= 'd'; --c)
    expected.push_back(fmt::format("p.log.{} {}\n", 'l' - c, String(6, c)));
  std::vector<String> found;
  for (DirectoryIterator entry(dir), end; entry != end; ++entry)
    found.push_back(entry.name() + " " + read(entry.name()));
  std::sort(found.begin(), found.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(found, expected);

  // A later run appends; text that is not urgent arrives within about a second.
  target.reset();
  auto again = makeAuto<LogFileTarget>(dir + "/p.log");
  again->write("g", false);
  EXPECT_EQ(read("p.log"), "llllll\n");
  for (int i = 0; i < 200 && read("p.log") != "llllll\ng"; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(read("p.log"), "llllll\ng");

  // A file that cannot be opened costs its text and one line on standard error, no more.
  auto blocked = makeAuto<LogFileTarget>(dir + "/p.log/inside");
  blocked->write("lost\n", true);
  blocked->flush();
  // Closed first: Windows removes no file that is open.
  again.reset();
  blocked.reset();
  std::filesystem::remove_all(std::string(dir));
}

// The day of the year and a directory that cannot be listed are proven by the logging profile
// suites, through the day's marker line and a failed reload.
TEST(DateTime, FormatsLocalTimeAndStreamReaderCutsLongLines) {
  fn::Environment::set("TZ", "UTC");
  tzset();
  LocalDateTime time(Timestamp::fromUnixSeconds(1709647629));
  EXPECT_EQ(DateTimeFormatter::format(time, DateTimeFormat::SORTABLE_FORMAT),
            "2024-03-05 14:07:09");
  EXPECT_EQ(DateTimeFormatter::format(time, "%F|%T|%j|%%|%q|%"), "2024-03-05|14:07:09|065|%|%q|%");

  std::string text = "one\r\ntwo\nthree-is-long\nlast";
  MemoryInputStream stream(text.data(), text.size());
  BufferedInputStream buffered(stream, 4);
  StreamReader reader(buffered);
  std::vector<String> lines;
  String line;
  while (reader.readLine(line, 5))
    lines.push_back(line);
  EXPECT_EQ(lines, (std::vector<String>{"one", "two", "three", "last"}));
}

}  // namespace
}  // namespace fn

#include "core/logging_profile.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "../foundation/support.h"
#include "foundation/environment.h"
#include "foundation/stream.h"

namespace core {
namespace {

using fn::logging::Category;
using fn::logging::Message;

struct RecordingTarget : fn::LogTarget {
  void write(std::string_view text, bool urgent) override {
    writes.emplace_back(text);
    urgents.push_back(urgent);
  }
  std::vector<fn::String> writes;
  std::vector<bool> urgents;
};

struct RecordingSink : fn::logging::Sink {
  void logMessage(Category const& category, Message const& message) override {
    passed.push_back(fmt::format("{} {} {}", category.name(), message.priority(), message.text()));
  }
  std::vector<fn::String> passed;
};

fn::AutoPtr<LoggingProfile> readProfile(std::string_view text) {
  auto profile = fn::makeAuto<LoggingProfile>();
  fn::MemoryInputStream stream(text.data(), text.size());
  profile->read(stream);
  return profile;
}

// 2024-03-05 14:07:09 and the next day, read in UTC.
constexpr int64_t MARCH_5 = 1709647629;
constexpr int64_t MARCH_6 = MARCH_5 + 86400;

Message message(int priority, std::string_view text, char const* file, int line, int64_t when) {
  Message m(priority, text);
  m.setSource(file, line);
  m.setTime(fn::Timestamp::fromUnixSeconds(when));
  m.setThreadNumber(10);
  return m;
}

TEST(LoggingProfile, FileFormatAndDecisionInTheirOrder) {
  auto profile = readProfile(
      "# a profile\n"
      "Name = Net profile  # the remark goes\r\n"
      "ENABLED = yes\n"
      "threshold = 2\n"
      "threshold.net = 7\n"
      "threshold.Media = 5\n"
      "threshold. = 3\n"
      "allowedTags = a, b,,\n"
      "allowedtags = c\n"
      "forbiddenTags = b\n"
      "filter = noisy\n"
      "filter = also noisy\n"
      "a line without equals\n"
      "= 7\n"
      "simple = maybe\n");
  // What the profile decides shows its thresholds, tags and filters; the rest only here.
  EXPECT_EQ(profile->name(), "Net profile");
  EXPECT_TRUE(profile->enabled());
  EXPECT_FALSE(profile->simple());

  // Without a threshold line nothing passes, not even an error.
  auto silent = readProfile("enabled = true\nname = quiet\n");
  auto sink = fn::makeAuto<RecordingSink>();
  silent->setSink(sink);
  profile->setSink(sink);
  Category net("net"), http("net.http"), capitalNet("Net"), media("media"), capitalMedia("Media"),
      other("other");
  struct Case {
    Category const& category;
    int priority;
    char const* tag;
    char const* text;
    bool passes;
  };
  Case const cases[] = {
      {http, 7, "a", "sub-category of net", true},
      {net, 7, "a", "net itself", true},
      {capitalNet, 3, "a", "capitals never match a threshold", false},
      {media, 5, "a", "media", true},
      {capitalMedia, 5, "a", "Media", false},
      {other, 2, "a", "root threshold", true},
      {other, 3, "a", "above the root threshold", false},
      {net, 1, "b", "forbidden wins over allowed", false},
      {net, 1, "c", "allowed by the repeated key", true},
      {net, 1, "", "untagged while tags are allowed", false},
      {net, 2, "a", "noisy", false},
      {net, 2, "a", "also noisy", false},
      {net, 1, "a", "noisy", true},
      {net, 2, "a", "noisy!", true},
  };
  std::vector<fn::String> expected;
  for (auto const& c : cases) {
    silent->log(c.category, Message(1, c.text, c.tag));
    profile->log(c.category, Message(c.priority, c.text, c.tag));
    if (c.passes)
      expected.push_back(fmt::format("{} {} {}", c.category.name(), c.priority, c.text));
  }
  EXPECT_EQ(sink->passed, expected);
}

// A hard break after 140 characters is in the formatted lines' test below. Pieces are shown
// each followed by "|", a continuation after "+".
TEST(LoggingProfile, LongLinesWrapAtBreakCharactersAndNeverInsideDoubleColons) {
  auto x = [](size_t count, char c = 'x') { return fn::String(count, c); };
  std::pair<fn::String, fn::String> const cases[] = {
      {x(140), x(140) + "|"},
      {x(100) + " " + x(37) + "::" + x(10, 'y'), x(100) + " |+" + x(37) + "::" + x(10, 'y') + "|"},
      {x(100) + ":" + x(60), x(100) + ":|+" + x(60) + "|"},
      {x(90) + ")" + x(20) + ">" + x(40), x(90) + ")" + x(20) + ">|+" + x(40) + "|"},
      // A continuation has four characters less room, and a line feed starts afresh.
      {x(280, 'z') + "\nshort\n", x(140, 'z') + "|+" + x(136, 'z') + "|+zzzz|short|"},
      {"a.b\n\nc", "a.b||c|"},
      {"\n", ""},
  };
  for (auto const& [text, expected] : cases) {
    fn::String shown;
    for (auto const& [piece, continuation] : FormattedSink::splitLines(text))
      shown += fmt::format("{}{}|", continuation ? "+" : "", piece);
    EXPECT_EQ(shown, expected) << text;
  }
}

TEST(LoggingProfile, FormattedLinesByteForByte) {
  fn::Environment::set("TZ", "UTC");
  tzset();
  auto target = fn::makeAuto<RecordingTarget>();
  FormattedSink sink(target);
  Category category("net");
  fn::String pad(48, ' ');
  sink.logMessage(category, message(4, "hello", "src/a.cpp", 1, MARCH_5));
  sink.logMessage(category, message(1, "one\ntwo\n", "C:\\src\\core\\worker.cpp", 42, MARCH_5));
  sink.logMessage(
      category, message(9, fn::String(141, 'x'), "libs/a_very_long_source_file_name_for_tests.cpp",
                        12345, MARCH_5));
  sink.logMessage(category, message(2, "", "a.cpp", 1, MARCH_5));
  sink.logMessage(category, message(5, "next day", "a.cpp", 7, MARCH_6));

  std::vector<fn::String> expected = {
      "\r\n>>>>>> 2024-03-05 <<<<<<\r\n\r\n",
      "14:07:09 INF 0a a:1 - - - - - - - - - - - - - - hello\r\n",
      "14:07:09 ERR 0a worker:42 - - - - - - - - - - - one\r\n" + pad + "two\r\n",
      // A header longer than 47 characters moves the text to the next even column after it.
      "14:07:09     0a a_very_long_source_file_name_for_tests:12345  " + fn::String(140, 'x') +
          "\r\n" + fn::String(62, ' ') + "    x\r\n",
      "",
      "\r\n>>>>>> 2024-03-06 <<<<<<\r\n\r\n",
      "14:07:09 DBG 0a a:7 - - - - - - - - - - - - - - next day\r\n",
  };
  EXPECT_EQ(target->writes, expected);
  EXPECT_EQ(target->urgents, (std::vector<bool>{false, false, true, false, true, false, false}));

  auto plain = fn::makeAuto<RecordingTarget>();
  SimpleSink simple(plain);
  simple.logMessage(category, message(4, "a\nb", "a.cpp", 1, MARCH_5));
  EXPECT_EQ(plain->writes, std::vector<fn::String>{"a\r\nb\r\n"});
}

TEST(LoggingProfile, NullSinksAndTargetsAreAssertionFailures) {
  fn::testing::AssertionRecorder recorder;
  LoggingProfile().setSink(nullptr);
  SimpleSink simple(nullptr);
  FormattedSink formatted(nullptr);
  ThrottledSink throttled(nullptr);
  std::vector<fn::String> reports;
  for (auto const& failure : recorder.failures())
    reports.push_back(failure.function + " " + failure.condition);
  EXPECT_EQ(reports, (std::vector<fn::String>{"setSink sink", "SimpleSink target",
                                              "FormattedSink target", "ThrottledSink sink"}));
}

}  // namespace
}  // namespace core

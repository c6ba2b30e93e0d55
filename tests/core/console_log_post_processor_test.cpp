#include "core/console_log_post_processor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "child_role.h"
#include "test_support.h"

namespace core {
namespace {

std::atomic<int> processed{0};
std::atomic<int> counted{0};

using Callback = ConsoleLogPostProcessor::StandardErrorCallback;
Callback const count = [](fn::String&) { ++counted; };
Callback const tag = [](fn::String& line) { line = "[x] " + line; };
Callback const suppressSecrets = [](fn::String& line) {
  if (line.find("secret") != fn::String::npos)
    line.clear();
};
Callback const markProcessed = [](fn::String&) { ++processed; };

void writeError(std::string_view text) {
  ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
  (void)ignored;
}

/// Waits until the reader has handled `lines` lines in all.
bool waitProcessed(int lines) {
  for (int i = 0; i < 1000 && processed < lines; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return processed == lines;
}

// The child role "--stderr-capture": captures its standard error, writes to it through the
// callbacks' changes, and prints on standard output what the callbacks saw and when.
int captureStandardError(int, char**) {
  ConsoleLogPostProcessor::init();
  ConsoleLogPostProcessor::init();
  ConsoleLogPostProcessor::registerStandardErrorCallback(markProcessed);
  writeError("plain\n");
  bool first = waitProcessed(1);

  ConsoleLogPostProcessor::registerStandardErrorCallback(count);
  ConsoleLogPostProcessor::registerStandardErrorCallback(count);
  ConsoleLogPostProcessor::registerStandardErrorCallback(tag);
  ConsoleLogPostProcessor::registerStandardErrorCallback(suppressSecrets);
  writeError("ab");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  int beforeLineFeed = counted;
  writeError("c\n");
  bool second = waitProcessed(2);
  int afterLineFeed = counted;
  writeError("a secret\n");
  bool third = waitProcessed(3);
  ConsoleLogPostProcessor::unregisterStandardErrorCallback(count);
  writeError("last\n");
  bool fourth = waitProcessed(4);
  std::printf("%d %d %d %d %d %d %d\n", first, second, third, fourth, beforeLineFeed, afterLineFeed,
              counted.load());
  std::fflush(stdout);
  // Text still without its line feed at exit is passed on too.
  writeError("unfinished");
  return 0;
}

[[maybe_unused]] bool const captureRole =
    testing_support::registerChildRole("--stderr-capture", &captureStandardError);

TEST(ConsoleLogPostProcessor, CallbacksSeeWholeLinesAndMayRewriteOrSuppressThem) {
  auto child = testing::runToEnd({"--stderr-capture"});
  // Lines wait for their line feed; a callback registered twice runs twice, and one
  // unregistration removes both.
  EXPECT_EQ(child.out, "1 1 1 1 0 2 4\n");
  // Without the CR that Windows' runtime writes before a text-mode line feed, with or without
  // the capture.
  EXPECT_EQ(child.err, "plain\n[x] abc\n[x] last\n[x] unfinished");
}

}  // namespace
}  // namespace core

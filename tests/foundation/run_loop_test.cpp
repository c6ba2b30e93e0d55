#include "foundation/run_loop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <thread>

#include "foundation/exception.h"
#include "foundation/uv/loop.h"
#include "foundation/uv/process.h"
#include "log_capture.h"
#include "platform.h"
#include "support.h"

namespace fn {
namespace {

void loopBoundCall() {
  FN_ASSERT_LOOP_THREAD();
}

TEST(RunLoop, PostedTasksRunLaterInOrderEndOfIterationWorkBeforeTheNext) {
  uv::Loop loop;
  std::vector<String> order;
  // Queued with nothing else to do: run() must still get to it.
  loop.atEndOfIteration([&order] { order.push_back("first end"); });
  loop.run();
  loop.post([&order, &loop] {
    order.push_back("task");
    loop.post([&order] { order.push_back("next task"); });
    loop.atEndOfIteration([&order, &loop] {
      order.push_back("end");
      loop.atEndOfIteration([&order] { order.push_back("end from end"); });
    });
  });
  loop.post([&order] { order.push_back("second task"); });
  EXPECT_EQ(order.size(), 1u);
  loop.run();
  EXPECT_EQ(order, (std::vector<String>{"first end", "task", "second task", "end", "end from end",
                                        "next task"}));
}

TEST(RunLoop, PostsFromAnotherThreadArriveInOrderButLoopBoundCallsThereAreAssertions) {
  testing::AssertionRecorder recorder;
  uv::Loop loop;
  constexpr int COUNT = 1000;
  std::vector<int> received, expected(COUNT);
  std::iota(expected.begin(), expected.end(), 0);
  std::thread poster([&loop, &received] {
    loopBoundCall();
    for (int i = 0; i < COUNT; ++i)
      loop.post([&received, i] { received.push_back(i); });
  });
  EXPECT_TRUE(testing::runLoopUntil(loop, [&] { return received.size() == COUNT; }));
  poster.join();
  EXPECT_EQ(received, expected);
  loopBoundCall();  // has a loop: fine
  EXPECT_EQ(recorder.conditions(), std::vector<String>{"Function must be called on main thread"});
  EXPECT_EQ(recorder.failures()[0].function, "loopBoundCall");
}

TEST(RunLoop, ScheduledCallsRunUnlessCancelledAndRunUntilStopsWhenDoneStoppedOrIdle) {
  uv::Loop loop;
  EXPECT_FALSE(loop.runUntil([] { return false; }));  // nothing could ever happen
  std::vector<String> ran;
  auto record = [&ran](String name) { return [&ran, name] { ran.push_back(name); }; };
  Handle kept = loop.schedule(Duration::milliseconds(1), record("kept"));
  Handle invalidated = loop.schedule(Duration::milliseconds(1), record("invalidated"));
  { Handle dropped = loop.schedule(Duration::milliseconds(1), record("dropped")); }
  loop.schedule(Duration::milliseconds(1), record("detached")).detach();
  Handle last = loop.schedule(Duration::milliseconds(20), record("last"));
  invalidated.invalidate();
  EXPECT_TRUE(loop.runUntil([&] { return !last.valid(); }));
  EXPECT_EQ(ran, (std::vector<String>{"kept", "detached", "last"}));
  kept.invalidate();  // after firing: nothing left to cancel

  Handle stopper = loop.schedule(Duration(), [&loop] { loop.stop(); });
  Handle keepAlive = loop.schedule(Duration::seconds(30), [] {});
  EXPECT_FALSE(loop.runUntil([] { return false; }));
}

TEST(RunLoop, ThrowingTaskIsReportedAndTheLoopGoesOn) {
  testing_support::LogCapture log;
  uv::Loop loop;
  int after = 0;
  loop.post([] { throw RuntimeException("posted boom"); });
  loop.post([&after] { ++after; });
  Handle timer = loop.schedule(Duration(), [] { throw std::runtime_error("timer boom"); });
  Handle later = loop.schedule(Duration::milliseconds(1), [&after] { ++after; });
  EXPECT_TRUE(testing::runLoopUntil(loop, [&] { return after == 2; }));

  std::vector<String> reported;
  for (auto const& line : log.lines())
    reported.push_back(fmt::format("{} {} {}", line.priority, line.category, line.text));
  std::sort(reported.begin(), reported.end());
  EXPECT_EQ(reported, (std::vector<String>{
                          "1 fn.exception Unhandled exception: RuntimeException: posted boom",
                          "1 fn.exception Unhandled exception: std::runtime_error: timer boom"}));
}

TEST(Process, GivenEnvironmentEntriesReplaceInheritedOnes) {
  uv::Loop loop;
  int64_t status = -1;
  uv::Process::Options options;
  // Python keeps the first of duplicate entries, as getenv() does (a shell would take the last);
  // Windows would not start a child with duplicates at all.
  if (testing_support::isWindows()) {
    options.file = "cmd.exe";
    options.arguments = {"/d", "/c", "if", "%HOME%==/given", "(exit", "0)", "else", "(exit", "1)"};
  } else {
    options.file = "/usr/bin/python3";
    options.arguments = {"-c", "import os, sys; sys.exit(os.environ['HOME'] != '/given')"};
  }
  options.environment = {"HOME=/given"};
  auto child = uv::Process::spawn(loop, options, [&](int64_t s, int) { status = s; });
  loop.runUntil([&] { return status >= 0; });
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace fn

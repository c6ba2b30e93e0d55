#include "foundation/run_loop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "foundation/exception.h"
#include "foundation/uv/loop.h"
#include "log_capture.h"
#include "support.h"

namespace fn {
namespace {

void loopBoundCall() {
  FN_ASSERT_LOOP_THREAD();
}

TEST(RunLoop, PostedTasksRunLaterInOrder) {
  uv::Loop loop;
  EXPECT_EQ(RunLoop::currentLoop(), &loop);
  std::vector<int> order;
  loop.post([&order, &loop] {
    order.push_back(1);
    // Posted from a task: after what was already queued.
    loop.post([&order] { order.push_back(4); });
  });
  loop.post([&order] { order.push_back(2); });
  loop.post([&order] { order.push_back(3); });
  EXPECT_TRUE(order.empty());

  loop.run();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST(RunLoop, PostsFromAnotherThreadArriveInOrder) {
  uv::Loop loop;
  constexpr int COUNT = 1000;
  std::vector<int> received;
  std::thread poster([&loop, &received] {
    EXPECT_EQ(RunLoop::currentLoop(), nullptr);
    for (int i = 0; i < COUNT; ++i)
      loop.post([&received, i] { received.push_back(i); });
  });
  EXPECT_TRUE(testing::runLoopUntil(loop, [&] { return received.size() == COUNT; }));
  poster.join();
  for (int i = 0; i < COUNT; ++i)
    ASSERT_EQ(received[i], i);
}

TEST(RunLoop, ScheduledCallsRunUnlessTheirHandleIsCancelled) {
  uv::Loop loop;
  std::vector<String> ran;
  auto record = [&ran](String name) { return [&ran, name] { ran.push_back(name); }; };
  Handle kept = loop.schedule(Duration::milliseconds(1), record("kept"));
  Handle invalidated = loop.schedule(Duration::milliseconds(1), record("invalidated"));
  { Handle dropped = loop.schedule(Duration::milliseconds(1), record("dropped")); }
  loop.schedule(Duration::milliseconds(1), record("detached")).detach();
  Handle last = loop.schedule(Duration::milliseconds(20), record("last"));
  EXPECT_TRUE(kept.valid());
  invalidated.invalidate();
  EXPECT_FALSE(invalidated.valid());

  EXPECT_TRUE(testing::runLoopUntil(loop, [&] { return !last.valid(); }));
  EXPECT_EQ(ran, (std::vector<String>{"kept", "detached", "last"}));
  EXPECT_FALSE(kept.valid());
  kept.invalidate();  // after firing: nothing left to cancel
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

TEST(RunLoop, EndOfIterationWorkRunsBeforeTheLoopWaits) {
  uv::Loop loop;
  std::vector<String> order;
  // Queued with nothing else to do: run() must still get to it.
  loop.atEndOfIteration([&order] { order.push_back("first end"); });
  loop.run();
  EXPECT_EQ(order, (std::vector<String>{"first end"}));

  order.clear();
  loop.post([&order, &loop] {
    order.push_back("task");
    loop.post([&order] { order.push_back("next task"); });
    loop.atEndOfIteration([&order, &loop] {
      order.push_back("end");
      loop.atEndOfIteration([&order] { order.push_back("end from end"); });
    });
  });
  loop.run();
  EXPECT_EQ(order, (std::vector<String>{"task", "end", "end from end", "next task"}));
}

TEST(RunLoop, RunUntilStopsWhenDoneStoppedOrIdle) {
  uv::Loop loop;
  EXPECT_FALSE(loop.runUntil([] { return false; }));  // nothing could ever happen

  bool fired = false;
  Handle timer = loop.schedule(Duration::milliseconds(1), [&fired] { fired = true; });
  EXPECT_TRUE(loop.runUntil([&] { return fired; }));

  int ran = 0;
  Handle stopper = loop.schedule(Duration(), [&loop, &ran] {
    ++ran;
    loop.stop();
  });
  Handle keepAlive = loop.schedule(Duration::seconds(30), [] {});
  EXPECT_FALSE(loop.runUntil([] { return false; }));
  EXPECT_EQ(ran, 1);
}

TEST(RunLoop, LoopBoundCallWithoutALoopIsAnAssertion) {
  testing::AssertionRecorder recorder;
  std::thread stranger([] { loopBoundCall(); });
  stranger.join();
  {
    uv::Loop loop;
    loopBoundCall();  // has a loop: fine
  }
  auto failures = recorder.failures();
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].condition, "Function must be called on main thread");
  EXPECT_EQ(failures[0].function, "loopBoundCall");
}

}  // namespace
}  // namespace fn

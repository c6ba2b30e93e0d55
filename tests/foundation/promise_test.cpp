#include "foundation/promise.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <thread>

#include "foundation/exception.h"
#include "foundation/uv/loop.h"
#include "support.h"

namespace fn {
namespace {

std::vector<String> conditions(testing::AssertionRecorder const& recorder) {
  std::vector<String> result;
  for (auto const& failure : recorder.failures())
    result.push_back(failure.condition);
  return result;
}

TEST(Promise, ContinuationsRunPostedOnTheLoopNeverInsideResolveOrThen) {
  uv::Loop loop;
  std::vector<String> ran;

  // Resolved first, continued later: then() does not run it either.
  auto early = Promise<int>::resolved(20);
  auto doubled = early.then([&](int value) {
    ran.push_back("early");
    return value * 2;
  });
  Promise<int> late;
  late.then([&](int value) { ran.push_back(String::number(value)); });
  late.resolve(7);
  EXPECT_TRUE(ran.empty());
  EXPECT_TRUE(late.isFulfilled());

  // A chain with a Promise<void> link: each link takes its own turn of the loop.
  String final;
  doubled.then([&](int value) { ran.push_back(String::number(value)); }).then([&] {
    final = "done";
  });
  testing::drainLoop(loop);
  EXPECT_EQ(ran, (std::vector<String>{"early", "7", "40"}));
  EXPECT_EQ(final, "done");

  // Promise<void> resolved without a value; its continuation runs exactly once.
  Promise<void> signal;
  int calls = 0;
  signal.then([&] { ++calls; });
  signal.resolve();
  EXPECT_EQ(calls, 0);
  testing::drainLoop(loop);
  testing::drainLoop(loop);
  EXPECT_EQ(calls, 1);
}

TEST(Promise, RejectionsPassAlongTheChainToTheFirstHandler) {
  uv::Loop loop;
  int fulfilledCalls = 0;
  String seen;
  Promise<int> source;
  source
      .then([&](int v) {
        ++fulfilledCalls;
        return v;
      })
      .then([&](int v) {
        ++fulfilledCalls;
        return String::number(v);
      })
      .fail([&](std::exception_ptr error) {
        seen = describeException(error);
        return String("recovered");
      })
      .then([&](String text) { seen += " / " + text; });
  source.reject(std::make_exception_ptr(RangeException("out of range")));
  testing::drainLoop(loop);
  EXPECT_EQ(fulfilledCalls, 0);
  EXPECT_EQ(seen, "RangeException: out of range / recovered");

  // A continuation that throws rejects the promise it returned, with what it threw.
  String thrown;
  Promise<String> failing;
  failing.then([](String) -> int { throw std::runtime_error("continuation failed"); })
      .then([](int) { return 0; },
            [&](std::exception_ptr error) {
              thrown = describeException(error);
              return 1;
            });
  failing.resolve("x");
  testing::drainLoop(loop);
  EXPECT_EQ(thrown, "std::runtime_error: continuation failed");
}

TEST(Promise, CancellationRunsTheOneHandlerAndDropsTheContinuation) {
  uv::Loop loop;
  testing::AssertionRecorder recorder;

  // Pending: cancel runs the handler at once, a second handler is refused, a late result
  // is ignored and the continuation never runs.
  Promise<int> pending;
  int first = 0, second = 0, continued = 0;
  pending.onCancel([&] { ++first; });
  pending.onCancel([&] { ++second; });
  EXPECT_EQ(conditions(recorder), (std::vector<String>{"Cancellation handler already set"}));
  pending.then([&](int) { ++continued; });
  pending.cancel();
  EXPECT_EQ(first, 1);
  pending.cancel();
  pending.resolve(1);
  testing::drainLoop(loop);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 0);
  EXPECT_EQ(continued, 0);
  EXPECT_TRUE(pending.isCancelled());
  EXPECT_FALSE(pending.isFulfilled());

  // Settled but its continuation not run yet: the consumer's cancel still wins, and the
  // producer, who is done, hears nothing. Its handler was released when it settled.
  auto token = std::make_shared<int>(0);
  Promise<int> answered;
  int handled = 0;
  answered.onCancel([&handled, token] { ++handled; });
  EXPECT_EQ(token.use_count(), 2);
  answered.then([&](int) { ++continued; });
  answered.resolve(5);
  EXPECT_EQ(token.use_count(), 1);
  answered.cancel();
  testing::drainLoop(loop);
  EXPECT_EQ(handled, 0);
  EXPECT_EQ(continued, 0);

  // Cancelling the end of a chain reaches the producer at its start.
  Promise<int> upstream;
  int upstreamCancelled = 0;
  upstream.onCancel([&] { ++upstreamCancelled; });
  auto tail = upstream.then([](int v) { return v + 1; }).then([&](int) { ++continued; });
  tail.cancel();
  EXPECT_EQ(upstreamCancelled, 1);
  testing::drainLoop(loop);
  EXPECT_EQ(continued, 0);
  EXPECT_EQ(conditions(recorder).size(), 1u);
}

TEST(Promise, ContinuationReturningAPromiseYieldsItsResult) {
  uv::Loop loop;
  Promise<int> inner;
  Promise<int> flat = Promise<void>::resolved().then([&] { return inner; });
  int got = 0;
  Promise<void> done =
      flat.then([&](int value) { got = value; }).then([] { return Promise<void>::resolved(); });
  testing::drainLoop(loop);
  EXPECT_TRUE(flat.isPending());
  inner.resolve(5);
  testing::drainLoop(loop);
  EXPECT_EQ(got, 5);
  EXPECT_TRUE(done.isFulfilled());

  // The inner promise's rejection passes on.
  auto failing = Promise<int>::resolved(1).then(
      [](int) { return Promise<String>::rejected(std::make_exception_ptr(IOException("gone"))); });
  String message;
  failing.fail([&](std::exception_ptr error) {
    message = describeException(error);
    return String();
  });
  testing::drainLoop(loop);
  EXPECT_EQ(message, "IOException: gone");

  // Cancelling the outer promise once the continuation ran reaches the promise it returned.
  Promise<int> slow;
  bool cancelled = false;
  slow.onCancel([&] { cancelled = true; });
  auto outer = Promise<void>::resolved().then([&] { return slow; });
  testing::drainLoop(loop);
  outer.cancel();
  EXPECT_TRUE(cancelled);
}

TEST(Promise, MisuseIsReportedWithItsAssertionText) {
  uv::Loop loop;
  testing::AssertionRecorder recorder;
  Promise<int> twice;
  twice.resolve(1);
  twice.reject(std::make_exception_ptr(RuntimeException("late")));
  twice.then([](int) {});
  twice.then([](int) {});
  testing::drainLoop(loop);
  EXPECT_EQ(conditions(recorder),
            (std::vector<String>{"Promise already settled", "Promise already has a continuation"}));
  EXPECT_TRUE(twice.isFulfilled());

  // A thread without a run loop cannot own promises.
  std::vector<String> offThread;
  std::thread([&] {
    testing::AssertionRecorder inThread;
    Promise<void> stray;
    stray.onCancel([] {});
    for (auto const& failure : inThread.failures())
      offThread.push_back(failure.condition);
  }).join();
  ASSERT_EQ(offThread.size(), 2u);
  EXPECT_EQ(offThread[0], "Function must be called on main thread");
  EXPECT_EQ(offThread[1], "Function must be called on main thread");
}

}  // namespace
}  // namespace fn

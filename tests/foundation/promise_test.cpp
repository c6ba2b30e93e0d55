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

TEST(Promise, ContinuationsRunPostedOnTheLoopAndRejectionsReachTheFirstHandler) {
  uv::Loop loop;
  std::vector<String> ran;
  auto record = [&](std::exception_ptr error) {
    ran.push_back(describeException(error));
    return String("recovered");
  };
  // Resolved before then(): then() does not run it either; each link takes its own turn.
  auto doubled = Promise<int>::resolved(20).then([&](int value) { return value * 2; });
  Promise<int> late;
  late.then([&](int value) { ran.push_back(String::number(value)); });
  late.resolve(7);
  doubled.then([&](int value) { ran.push_back(String::number(value)); }).then([&] {
    ran.push_back("done");
  });
  Promise<int> source;
  source.then([&](int v) { return String::number(v); }).fail(record).then([&](String text) {
    ran.push_back(text);
  });
  source.reject(std::make_exception_ptr(RangeException("out of range")));
  // A continuation that throws rejects the promise it returned, with what it threw.
  Promise<String> failing;
  failing.then([](String) -> String { throw std::runtime_error("continuation failed"); })
      .fail(record);
  failing.resolve("x");
  EXPECT_TRUE(ran.empty());
  testing::drainLoop(loop);
  EXPECT_EQ(ran,
            (std::vector<String>{"7", "40", "RangeException: out of range",
                                 "std::runtime_error: continuation failed", "done", "recovered"}));
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
  pending.then([&](int) { ++continued; });
  pending.cancel();
  pending.cancel();
  pending.resolve(1);
  EXPECT_EQ(first + second, 1);

  // Settled but its continuation not run yet: the consumer's cancel still wins, and the
  // producer, who is done, hears nothing. Its handler was released when it settled.
  auto token = std::make_shared<int>(0);
  Promise<int> answered;
  answered.onCancel([&first, token] { ++first; });
  answered.then([&](int) { ++continued; });
  answered.resolve(5);
  EXPECT_EQ(token.use_count(), 1);
  answered.cancel();

  // Cancelling the end of a chain reaches the producer at its start.
  Promise<int> upstream;
  upstream.onCancel([&] { ++first; });
  upstream.then([](int v) { return v + 1; }).then([&](int) { ++continued; }).cancel();
  EXPECT_EQ(first, 2);
  testing::drainLoop(loop);
  EXPECT_EQ(continued, 0);
  EXPECT_EQ(recorder.conditions(), (std::vector<String>{"Cancellation handler already set"}));
}

TEST(Promise, ContinuationReturningAPromiseYieldsItsResult) {
  uv::Loop loop;
  Promise<int> inner;
  int got = 0;
  Promise<int> flat = Promise<void>::resolved().then([&] { return inner; });
  flat.then([&](int value) { got = value; });
  testing::drainLoop(loop);
  EXPECT_TRUE(flat.isPending());
  inner.resolve(5);
  // The inner promise's rejection passes on.
  String message;
  Promise<int>::resolved(1)
      .then([](int) {
        return Promise<String>::rejected(std::make_exception_ptr(IOException("gone")));
      })
      .fail([&](std::exception_ptr error) { return message = describeException(error); });
  // Cancelling the outer promise once the continuation ran reaches the promise it returned.
  Promise<int> slow;
  bool cancelled = false;
  slow.onCancel([&] { cancelled = true; });
  auto outer = Promise<void>::resolved().then([&] { return slow; });
  testing::drainLoop(loop);
  EXPECT_EQ(got, 5);
  EXPECT_EQ(message, "IOException: gone");
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
  EXPECT_EQ(recorder.conditions(),
            (std::vector<String>{"Promise already settled", "Promise already has a continuation"}));
  EXPECT_TRUE(twice.isFulfilled());
  // A thread without a run loop cannot own promises.
  std::vector<String> offThread;
  std::thread([&] {
    testing::AssertionRecorder inThread;
    Promise<void>().onCancel([] {});
    offThread = inThread.conditions();
  }).join();
  EXPECT_EQ(offThread, std::vector<String>(2, "Function must be called on main thread"));
}

}  // namespace
}  // namespace fn

#include "foundation/thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "support.h"

namespace fn {
namespace {

TEST(ThreadPool, ABlockedTaskDoesNotHoldUpTheNextAndStopFinishesTheQueueThenRefusesTasks) {
  testing::AssertionRecorder assertions;
  ThreadPool pool(2);
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::promise<void> secondRan;
  pool.schedule([released] { released.wait(); });
  pool.schedule([&] { secondRan.set_value(); });
  // Waits on the second task alone: a deadlock here means it queued behind the first.
  secondRan.get_future().wait();
  std::atomic<int> late{0};
  pool.schedule([&] { ++late; });
  release.set_value();
  pool.stop();
  EXPECT_EQ(late, 1);
  pool.schedule([&] { ++late; });
  EXPECT_EQ(late, 1);
  EXPECT_EQ(assertions.conditions(),
            std::vector<String>{"Can not schedule task on stopped thread pool"});
}

}  // namespace
}  // namespace fn

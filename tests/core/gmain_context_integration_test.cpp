// Each test sets the integration up and takes it down once: that is all a process may do, and
// ctest runs every test case in a process of its own.

#include "core/gmain_context_integration.h"

#include <glib-unix.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "foundation/assert.h"
#include "loop_runner.h"

namespace core {
namespace {

using testing_support::runLoopUntil;
using Clock = std::chrono::steady_clock;

class GMainContextIntegrationTest : public ::testing::Test {
protected:
  void SetUp() override { GMainContextIntegration::init(loop); }
  void TearDown() override {
    if (GMainContextIntegration::instance())
      GMainContextIntegration::quit();
    testing_support::drainLoop(loop);
  }

  fn::uv::Loop& loop = fn::uv::Loop::defaultLoop();
};

struct Fired {
  int count = 0;
  std::thread::id thread;
  Clock::time_point at;
  static gboolean once(gpointer data) {
    auto* self = static_cast<Fired*>(data);
    ++self->count;
    self->thread = std::this_thread::get_id();
    self->at = Clock::now();
    return G_SOURCE_REMOVE;
  }
};

TEST_F(GMainContextIntegrationTest, GLibSourcesRunOnTheLoopThreadWhileTheLoopStaysResponsive) {
  Fired timeout, idle;
  auto added = Clock::now();
  g_timeout_add(100, &Fired::once, &timeout);
  g_idle_add(&Fired::once, &idle);
  // The loop's own timers keep firing while a pool thread waits for GLib.
  int ticks = 0;
  std::function<void()> tick = [&] {
    ++ticks;
    static fn::Handle next;
    next = loop.schedule(fn::Duration::milliseconds(10), tick);
  };
  tick();
  ASSERT_TRUE(runLoopUntil(loop, [&] { return timeout.count == 1 && idle.count == 1; }));
  EXPECT_EQ(idle.thread, std::this_thread::get_id());
  EXPECT_EQ(timeout.thread, std::this_thread::get_id());
  EXPECT_LT(idle.at, timeout.at);
  EXPECT_GE(timeout.at - added, std::chrono::milliseconds(95));
  EXPECT_GE(ticks, 5);
  testing_support::drainLoop(loop);
  EXPECT_EQ(timeout.count + idle.count, 2);
}

TEST_F(GMainContextIntegrationTest, TheLastQuitTakesItDownAndNoSecondSetUpFollows) {
  GMainContextIntegration::init(loop);
  GMainContextIntegration::quit();
  ASSERT_NE(GMainContextIntegration::instance(), nullptr);
  Fired idle;
  g_idle_add(&Fired::once, &idle);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return idle.count == 1; }));

  GMainContextIntegration::quit();
  EXPECT_EQ(GMainContextIntegration::instance(), nullptr);
  std::vector<fn::String> failures;
  auto previous = fn::debug::setAssertionHook(
      [&](fn::debug::AssertionInfo const& info) { failures.push_back(info.condition); });
  GMainContextIntegration::init(loop);
  fn::debug::setAssertionHook(std::move(previous));
  EXPECT_EQ(GMainContextIntegration::instance(), nullptr);
  EXPECT_EQ(failures.size(), 1u);
}

TEST_F(GMainContextIntegrationTest, TakingItDownWakesAPollWithoutTimeOut) {
  GMainContext* context = GMainContextIntegration::instance()->context();
  // Nothing is attached, so the pool thread polls with no time-out, owning the context. Each
  // look that finds it free wakes whatever poll runs, so that the next one starts afresh.
  auto deadline = Clock::now() + std::chrono::seconds(5);
  bool owned = false;
  while (!owned && Clock::now() < deadline) {
    uv_run(loop.raw(), UV_RUN_NOWAIT);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (g_main_context_acquire(context)) {
      g_main_context_release(context);
      g_main_context_wakeup(context);
    } else {
      owned = true;
    }
  }
  ASSERT_TRUE(owned) << "no poll started";

  GMainContextIntegration::quit();
  bool returned = false;
  while (!returned && Clock::now() < deadline) {
    returned = g_main_context_acquire(context);
    if (!returned)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_TRUE(returned) << "the poll did not return";
  if (returned)
    g_main_context_release(context);
}

TEST_F(GMainContextIntegrationTest, MoreThanTwentyDescriptorsGrowTheArrayOnce) {
  constexpr int PIPES = 25;
  int pipes[PIPES][2], dispatched = 0;
  for (auto& fds : pipes) {
    ASSERT_EQ(::pipe(fds), 0);
    g_unix_fd_add(
        fds[0], G_IO_IN,
        [](int fd, GIOCondition, gpointer data) -> gboolean {
          char byte;
          EXPECT_EQ(::read(fd, &byte, 1), 1);
          ++*static_cast<int*>(data);
          return G_SOURCE_CONTINUE;
        },
        &dispatched);
  }
  auto* integration = GMainContextIntegration::instance();
  EXPECT_EQ(integration->descriptorCapacity(), 20);
  // GLib's own wake-up descriptor comes on top of ours.
  ASSERT_TRUE(runLoopUntil(loop, [&] { return integration->descriptorCapacity() > 20; }));
  EXPECT_EQ(integration->descriptorCapacity(), PIPES + 1);

  // Only the last descriptor, beyond the first twenty, has something to read.
  ASSERT_EQ(::write(pipes[PIPES - 1][1], "x", 1), 1);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return dispatched == 1; }));
  for (int i = 0; i < PIPES; ++i)
    EXPECT_TRUE(g_source_remove_by_user_data(&dispatched));
  Fired idle;
  g_idle_add(&Fired::once, &idle);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return idle.count == 1; }));
  EXPECT_EQ(integration->descriptorCapacity(), PIPES + 1);
  EXPECT_EQ(dispatched, 1);
  for (auto& fds : pipes) {
    ::close(fds[0]);
    ::close(fds[1]);
  }
}

}  // namespace
}  // namespace core

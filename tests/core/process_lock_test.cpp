#include "core/process_lock.h"

#include <gtest/gtest.h>
#include <uv.h>

#include <csignal>
#include <optional>
#include <string>
#include <thread>

#include "child_process.h"
#include "child_role.h"
#include "foundation/environment.h"
#include "foundation/file.h"
#include "loop_runner.h"
#include "platform.h"
#include "test_support.h"

namespace core {
namespace {

using testing_support::ChildProcess;

// Windows names the lock in the session's name space, not in the runtime directory, and the
// suite's cases run side by side: each test process takes a name of its own.
fn::String const ROLE = "lumaren-test-role-" + std::to_string(uv_os_getpid());

// The child role "--hold ROLE": takes the lock, says whether it came first, and holds it until
// it is killed.
int holdLock(int argc, char** argv) {
  if (argc < 3)
    return 2;
  ProcessLock lock(argv[2]);
  std::printf("%s\n", lock.exclusive() ? "exclusive" : "not exclusive");
  std::fflush(stdout);
  for (;;)
    std::this_thread::sleep_for(std::chrono::hours(1));
}

[[maybe_unused]] bool const holdRole = testing_support::registerChildRole("--hold", &holdLock);

class ProcessLockTest : public ::testing::Test {
protected:
  /// A child that took the lock, once it said that it got what was `expected`.
  std::unique_ptr<ChildProcess> holder(char const* expected) {
    auto child = ChildProcess::start(
        loop, {.file = fn::uv::executablePath(), .arguments = {"--hold", ROLE}, .capture = true});
    EXPECT_TRUE(testing_support::runLoopUntil(loop, [&] {
      return child->out().find('\n') != fn::String::npos || child->exited();
    })) << child->err();
    EXPECT_EQ(child->out().trim(), expected) << child->err();
    return child;
  }

  testing::TemporaryRuntimeDirectory runtime;
  fn::uv::Loop loop;
};

TEST_F(ProcessLockTest, TheFirstHolderIsExclusiveUntilItDiesInAnyWay) {
  for (int signal : {SIGTERM, SIGKILL}) {
    SCOPED_TRACE(signal);
    auto first = holder("exclusive");
    EXPECT_FALSE(ProcessLock(ROLE).exclusive());
    auto second = holder("not exclusive");
    first->kill(signal);
    first->waitForExit();
    // A Windows mutex lives while any process has it open, the second holder too.
    if (testing_support::isWindows()) {
      second->kill(SIGKILL);
      second->waitForExit();
    }
    // The second never held the lock, so the name is free again.
    EXPECT_TRUE(ProcessLock(ROLE).exclusive());
  }
  // The lock is the user's own (a lock file there; a kernel object's name on Windows).
  if (!testing_support::isWindows()) {
    EXPECT_TRUE(
        fn::File(runtime.directory() + "/" + ROLE + "-" + fn::Environment::userName() + ".lock")
            .exists());
  }
}

TEST_F(ProcessLockTest, ACopyKeepsTheLockAlive) {
  std::optional<ProcessLock> original(std::in_place, ROLE);
  ASSERT_TRUE(original->exclusive());
  ProcessLock copy = *original;
  original.reset();
  auto other = holder("not exclusive");

  // A child process does not inherit the lock: once the copy goes, the name is free although
  // the child still runs (on Windows, where its open mutex keeps the name, once it ended).
  copy = ProcessLock("another-role");
  if (testing_support::isWindows()) {
    other->kill(SIGKILL);
    other->waitForExit();
  }
  EXPECT_TRUE(ProcessLock(ROLE).exclusive());
}

}  // namespace
}  // namespace core

// Sleep prevention's calls of SetThreadExecutionState: the real call, watched through the
// seam, and a system that refuses away mode or everything.

#include <windows.h>

#include <gtest/gtest.h>

#include <vector>

#include "core/sleep_preventer.h"
#include "core/sleep_prevention_win.h"
#include "foundation/uv/loop.h"
#include "log_capture.h"

namespace core {
namespace {

enum class Refuse { NOTHING, AWAY_MODE, EVERYTHING };

std::vector<uint32_t> calls;
Refuse refuse = Refuse::NOTHING;

uint32_t recordCall(uint32_t flags) {
  calls.push_back(flags);
  if (refuse == Refuse::EVERYTHING || (refuse == Refuse::AWAY_MODE && (flags & 0x40)))
    return 0;
  return SetThreadExecutionState(flags);
}

class SleepPreventerWinTest : public ::testing::Test {
protected:
  void SetUp() override {
    calls.clear();
    refuse = Refuse::NOTHING;
    sleep_prevention::replaceExecutionStateCall(&recordCall);
  }
  void TearDown() override { sleep_prevention::replaceExecutionStateCall(nullptr); }

  fn::uv::Loop loop;
};

// Continuous with display required: a state of the thread's own that must come back.
constexpr uint32_t BEFORE = ES_CONTINUOUS | ES_DISPLAY_REQUIRED;

TEST_F(SleepPreventerWinTest, OneCallInAndOneOutForNestedPreventersAndCopiesRestoringTheState) {
  SetThreadExecutionState(BEFORE);
  uint32_t during = 0;
  {
    SleepPreventer first;
    {
      SleepPreventer second, third;
      SleepPreventer copy(first);
    }
    // Asking for the same state again answers with the state in force.
    during = SetThreadExecutionState(0x80000041);
  }
  EXPECT_EQ(calls, (std::vector<uint32_t>{0x80000041, BEFORE}));
  EXPECT_EQ(during, 0x80000041u);
  EXPECT_EQ(SetThreadExecutionState(ES_CONTINUOUS), BEFORE);
}

TEST_F(SleepPreventerWinTest, WithoutAwayModeTheSystemAloneIsRequiredAndTotalRefusalIsLogged) {
  SetThreadExecutionState(BEFORE);
  refuse = Refuse::AWAY_MODE;
  { SleepPreventer preventer; }
  EXPECT_EQ(calls, (std::vector<uint32_t>{0x80000041, 0x80000001, BEFORE}));

  calls.clear();
  refuse = Refuse::EVERYTHING;
  testing_support::LogCapture log;
  { SleepPreventer first, second; }
  // Still counted: the last one's end asks for continuous alone.
  EXPECT_EQ(calls, (std::vector<uint32_t>{0x80000041, 0x80000001, 0x80000000}));
  auto lines = log.linesOf("core.sleepPreventer");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, fn::logging::ERR);
  EXPECT_EQ(lines[0].text, "Failed to set system sleep state");
}

}  // namespace
}  // namespace core

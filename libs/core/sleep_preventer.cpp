#include "core/sleep_preventer.h"

#include "core/sleep_prevention.h"
#include "foundation/logging/category.h"
#include "foundation/run_loop.h"

namespace core {
namespace {

fn::logging::Category logSleep("core.sleepPreventer");

// Shared by every preventer of the process; the main-thread rule is its only protection.
struct SleepPreventionImpl {
  uint32_t count = 0;
  int64_t previousState = 0;
};

SleepPreventionImpl& impl() {
  static SleepPreventionImpl state;
  return state;
}

void addPrevention() {
  auto& state = impl();
  if (++state.count != 1)
    return;
  state.previousState = 0;
  if (!sleep_prevention::begin(state.previousState))
    logSleep.log(fn::logging::ERR, "Failed to set system sleep state");
}

void removePrevention() {
  auto& state = impl();
  if (state.count == 0)
    return;
  if (--state.count == 0)
    sleep_prevention::end(std::exchange(state.previousState, 0));
}

}  // namespace

// The assertions name the constructor and the destructor, so they are made here rather than in
// the helpers.
SleepPreventer::SleepPreventer() {
  fn::assertOnLoopThread(__FILE__, __func__, __LINE__);
  addPrevention();
}

SleepPreventer::SleepPreventer(SleepPreventer const&) {
  fn::assertOnLoopThread(__FILE__, __func__, __LINE__);
  addPrevention();
}

SleepPreventer::~SleepPreventer() {
  fn::assertOnLoopThread(__FILE__, __func__, __LINE__);
  removePrevention();
}

}  // namespace core

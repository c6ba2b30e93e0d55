// Sleep prevention through the thread's execution state. All calls come from the main thread,
// whose execution state they change.

#include "core/sleep_prevention_win.h"
#include <windows.h>

#include "core/sleep_prevention.h"

namespace core::sleep_prevention {
namespace {

// Continuous, system required, away mode required.
constexpr uint32_t AWAY_MODE_STATE = ES_CONTINUOUS | ES_SYSTEM_REQUIRED | ES_AWAYMODE_REQUIRED;
// Continuous and system required, for systems without away mode.
constexpr uint32_t SYSTEM_STATE = ES_CONTINUOUS | ES_SYSTEM_REQUIRED;
static_assert(AWAY_MODE_STATE == 0x80000041 && SYSTEM_STATE == 0x80000001);

uint32_t systemCall(uint32_t flags) {
  return SetThreadExecutionState(flags);
}

ExecutionStateCall setExecutionState = &systemCall;

}  // namespace

void replaceExecutionStateCall(ExecutionStateCall call) {
  setExecutionState = call ? call : &systemCall;
}

bool begin(int64_t& previousState) {
  // Away mode where the system has it; without it, the request fails and is made again bare.
  uint32_t previous = setExecutionState(AWAY_MODE_STATE);
  if (previous == 0)
    previous = setExecutionState(SYSTEM_STATE);
  previousState = previous;
  return previous != 0;
}

void end(int64_t previousState) {
  // The state from before is put back rather than merely cleared; continuous alone ends the
  // requirement when there was none to put back.
  setExecutionState(previousState != 0 ? static_cast<uint32_t>(previousState) : ES_CONTINUOUS);
}

}  // namespace core::sleep_prevention

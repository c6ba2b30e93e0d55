// Sleep prevention through the thread's execution state. All calls come from the main thread,
// whose execution state they change.

#include <windows.h>

#include "core/sleep_prevention.h"

namespace core::sleep_prevention {

bool begin(int64_t& previousState) {
  // Away mode where the system has it; without it, the request fails and is made again bare.
  EXECUTION_STATE previous =
      SetThreadExecutionState(ES_CONTINUOUS | ES_SYSTEM_REQUIRED | ES_AWAYMODE_REQUIRED);
  if (previous == 0)
    previous = SetThreadExecutionState(ES_CONTINUOUS | ES_SYSTEM_REQUIRED);
  previousState = previous;
  return previous != 0;
}

void end(int64_t previousState) {
  // The state from before is put back rather than merely cleared.
  SetThreadExecutionState(previousState != 0 ? static_cast<EXECUTION_STATE>(previousState)
                                             : ES_CONTINUOUS);
}

}  // namespace core::sleep_prevention

#pragma once

// The platform's half of core::SleepPreventer (sleep_prevention_<platform>.cpp): asking the
// system to stay awake and giving the request back. Called on the main thread only, by the
// shared count in sleep_preventer.cpp.

#include <cstdint>

namespace core::sleep_prevention {

/// Asks the system to stay awake; on success stores what end() needs in `previousState` and
/// returns true. False when the system refused; the reason is logged at debug level.
bool begin(int64_t& previousState);
/// Gives the request back. `previousState` is what begin() stored, or 0 when it failed.
void end(int64_t previousState);

}  // namespace core::sleep_prevention

#pragma once

// A seam in Windows sleep prevention: the one system call it makes can be replaced, so that
// tests see every call and can play a system that refuses some.

#include <cstdint>

#include "core/export.h"

namespace core::sleep_prevention {

/// SetThreadExecutionState with the flags as plain integers: takes the new state, returns the
/// previous one or 0 on failure.
using ExecutionStateCall = uint32_t (*)(uint32_t flags);

/// Makes sleep prevention call `call` instead of SetThreadExecutionState; nullptr puts the
/// system's call back. Main thread only.
CORE_EXPORT void replaceExecutionStateCall(ExecutionStateCall call);

}  // namespace core::sleep_prevention

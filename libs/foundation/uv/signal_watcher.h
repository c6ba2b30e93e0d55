#pragma once

// Process signals (SIGINT, SIGTERM) delivered as loop callbacks.

#include "foundation/handle.h"
#include "foundation/run_loop.h"

namespace fn::uv {

class Loop;

class FN_EXPORT SignalWatcher {
public:
  /// Calls `task` on the loop thread each time the process receives `signal`, until the
  /// returned handle is invalidated or destroyed. The task runs through the loop's guard.
  [[nodiscard]] static Handle watch(Loop& loop, int signal, std::function<void()> task);
};

}  // namespace fn::uv

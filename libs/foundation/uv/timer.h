#pragma once

#include "foundation/duration.h"
#include "foundation/handle.h"
#include "foundation/run_loop.h"

namespace fn::uv {

class Loop;

class FN_EXPORT Timer {
public:
  /// Calls `task` once after `delay` on the loop thread. The returned handle cancels it.
  [[nodiscard]] static Handle schedule(Loop& loop, Duration delay, RunLoop::Task task);
};

}  // namespace fn::uv

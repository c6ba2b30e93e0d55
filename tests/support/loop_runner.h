#pragma once

// Running a test's loop until something happened, for every suite.

#include <functional>

#include "foundation/duration.h"
#include "foundation/uv/loop.h"

namespace testing_support {

/// Runs the loop until `done()` or `timeout`; returns done().
inline bool runLoopUntil(fn::uv::Loop& loop,
                         std::function<bool()> const& done,
                         fn::Duration timeout = fn::Duration::seconds(10)) {
  bool expired = false;
  fn::Handle timer = loop.schedule(timeout, [&] { expired = true; });
  loop.runUntil([&] { return expired || done(); });
  return done();
}

/// Runs a few loop iterations without waiting, so that posted work and closes complete.
inline void drainLoop(fn::uv::Loop& loop) {
  for (int i = 0; i < 16; ++i)
    uv_run(loop.raw(), UV_RUN_NOWAIT);
}

}  // namespace testing_support

#pragma once

// Interrupt: notices SIGINT and SIGTERM on the loop, so that a command that runs until the
// user stops it (watch, the interactive inspector) can end cleanly instead of being killed.
// Loop thread only; destroying it restores the default handling.

#include <uv.h>

#include "foundation/uv/loop.h"

namespace ctl {

class Interrupt {
public:
  explicit Interrupt(fn::uv::Loop& loop);
  ~Interrupt();
  Interrupt(Interrupt const&) = delete;
  Interrupt& operator=(Interrupt const&) = delete;

  bool fired() const { return _state->fired; }

private:
  struct State {
    uv_signal_t signals[2];
    bool fired = false;
    int open = 2;
  };
  // Freed by the close callback of the last handle, which runs after this object is gone.
  State* _state;
};

}  // namespace ctl

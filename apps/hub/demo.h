#pragma once

#include "foundation/duration.h"
#include "foundation/uv/loop.h"

namespace hub {

/// The self-demonstration: runs a dispatcher and a module manager with the example modules
/// (the announcer inside this process, the greeter in a process of its own), uses the greeter
/// like any client would, kills it and uses it again once the manager restarted it, printing
/// what happens. Returns the exit code.
int runDemo(fn::uv::Loop& loop, fn::Duration timeout);

}  // namespace hub

#pragma once

#include "foundation/string.h"
#include "foundation/uv/loop.h"

namespace hub {

/// The hub's side of the self-demonstration: runs a dispatcher, starts two worker processes
/// (this executable again) and prints what happens. Returns the exit code.
int runDemo(fn::uv::Loop& loop, fn::Duration timeout);

/// A worker process of the demonstration ("alice" or "bob"), connecting to `pipePath`.
int runDemoWorker(fn::uv::Loop& loop, fn::String const& name, fn::String const& pipePath);

}  // namespace hub

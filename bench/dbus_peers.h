#pragma once

// The D-Bus side of lumaren-bench: two sd-bus peers talking through a private dbus-daemon that
// the benchmark starts, so that the ratio to D-Bus is measured in the same run as our own
// figures.

#include "bench_support.h"

namespace bench {

/// Starts dbus-daemon, a server process in the role "dbus-server" and measures calls of its
/// Echo method: the median of single calls and calls per second with WINDOW in flight. All
/// zero when dbus-daemon cannot be started.
Figures measureDbus(Settings const& settings);

/// The role "dbus-server": serves Echo on the bus at `address` until killed.
int runDbusServer(fn::String const& address);

}  // namespace bench

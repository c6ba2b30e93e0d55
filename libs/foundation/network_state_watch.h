#pragma once

// The platform's half of fn::NetworkStateNotifier (network_state_watch_<platform>.cpp): watching
// the system's network configuration. The notifier keeps the listeners.

#include <functional>

namespace fn::network_state {

/// Starts watching for the rest of the process; called once, on the default loop's thread.
/// `changed` runs on that thread after each change (a burst of changes arriving together may be
/// reported once), with whether a link other than loopback is up.
void startWatching(std::move_only_function<void(bool connected)> changed);

}  // namespace fn::network_state

// Placeholder until the IP helper versions land: no notifications, no neighbour table.
#include "foundation/mac_address.h"
#include "foundation/network_state_notifier.h"

namespace fn {

class NetworkStateNotifier::Impl {};

NetworkStateNotifier::NetworkStateNotifier() = default;

NetworkStateNotifier& NetworkStateNotifier::instance() {
  static NetworkStateNotifier notifier;
  return notifier;
}

Handle NetworkStateNotifier::addChangeListener(Listener) {
  return Handle();
}

MacAddress MacAddress::fromIPAddress(IPAddress const&) {
  return MacAddress();
}

}  // namespace fn

#pragma once

// The machine's network adapters as the network signature sees them, and the choice of the
// gateways that make the signature. The list comes from the platform (network_adapter_<platform>
// .cpp); the choice is the same everywhere, so it is made here on a plain list.

#include <cstdint>
#include <vector>

#include "core/export.h"
#include "foundation/ip_address.h"

namespace core {

struct NetworkAdapter {
  /// Interface types of the IANA ifType registry, which Windows reports as they are and Linux
  /// is mapped onto.
  static constexpr uint32_t ETHERNET = 6;
  static constexpr uint32_t SOFTWARE_LOOPBACK = 24;
  static constexpr uint32_t IEEE80211 = 71;
  static constexpr uint32_t OTHER = 1;

  uint32_t interfaceType = OTHER;
  /// Its unicast addresses; the choice looks only at the IPv4 ones.
  std::vector<fn::IPAddress> unicastAddresses;
  /// Its default gateways, in the system's order.
  std::vector<fn::IPAddress> gateways;
};

/// The adapters in the system's order. IOException "Could not get network adapters info", with
/// the system's error attached, when the system cannot be asked.
CORE_EXPORT std::vector<NetworkAdapter> listNetworkAdapters();

/// The gateways of the Ethernet and wireless adapters that have an IPv4 address that is
/// unicast, not link-local and not loopback, in adapter order, each address once.
CORE_EXPORT std::vector<fn::IPAddress> selectActiveGateways(
    std::vector<NetworkAdapter> const& adapters);

}  // namespace core

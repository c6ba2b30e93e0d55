#include "core/network_adapter.h"

#include <algorithm>

namespace core {
namespace {

bool isEthernetOrWireless(NetworkAdapter const& adapter) {
  return adapter.interfaceType == NetworkAdapter::ETHERNET ||
         adapter.interfaceType == NetworkAdapter::IEEE80211;
}

bool hasUsableIPv4Address(NetworkAdapter const& adapter) {
  return std::ranges::any_of(adapter.unicastAddresses, [](fn::IPAddress const& address) {
    return address.family() == fn::IPAddress::Family::IPV4 && address.isUnicast() &&
           !address.isLinkLocal() && !address.isLoopback();
  });
}

}  // namespace

std::vector<fn::IPAddress> selectActiveGateways(std::vector<NetworkAdapter> const& adapters) {
  std::vector<fn::IPAddress> gateways;
  for (auto const& adapter : adapters) {
    if (!isEthernetOrWireless(adapter) || !hasUsableIPv4Address(adapter))
      continue;
    for (auto const& gateway : adapter.gateways) {
      if (std::ranges::find(gateways, gateway) == gateways.end())
        gateways.push_back(gateway);
    }
  }
  return gateways;
}

}  // namespace core

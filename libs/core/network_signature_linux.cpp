// The gateways from rtnetlink: the links, their IPv4 addresses and the main table's default
// routes, IPv4 then IPv6.

#include <linux/if_arp.h>
#include <linux/rtnetlink.h>

#include <algorithm>

#include "core/network_signature.h"
#include "foundation/exception.h"
#include "foundation/netlink_linux.h"

namespace core {
namespace {

// Ethernet and wireless adapters both have an Ethernet link layer here; tunnels, loopback and
// the like have other types and never count.
bool isEthernetOrWireless(fn::netlink::Link const& link) {
  return link.type == ARPHRD_ETHER;
}

bool hasUsableIPv4Address(fn::netlink::Tables const& addresses, int index) {
  for (auto const& entry : addresses.addresses) {
    if (entry.index != index || entry.family != AF_INET)
      continue;
    auto address = fn::IPAddress::fromBytes(entry.bytes.data(), entry.bytes.size());
    if (address && address->isUnicast() && !address->isLinkLocal() && !address->isLoopback())
      return true;
  }
  return false;
}

bool isDefaultRoute(fn::netlink::Route const& route) {
  return route.dstLength == 0 && route.type == RTN_UNICAST && route.table == RT_TABLE_MAIN;
}

}  // namespace

std::vector<fn::IPAddress> NetworkSignature::getActiveGateways() {
  fn::netlink::Tables links, addresses, routes;
  try {
    fn::netlink::Socket socket;
    links = socket.dump(RTM_GETLINK, AF_UNSPEC);
    addresses = socket.dump(RTM_GETADDR, AF_INET);
    routes = socket.dump(RTM_GETROUTE, AF_INET);
    for (auto& route : socket.dump(RTM_GETROUTE, AF_INET6).routes)
      routes.routes.push_back(std::move(route));
  } catch (fn::Exception const& e) {
    auto failure = fn::IOException("Could not get network adapters info");
    failure.info().errnoValue = e.info().errnoValue;
    throw failure;
  }

  std::vector<fn::IPAddress> gateways;
  for (auto const& link : links.links) {
    if (!isEthernetOrWireless(link) || !hasUsableIPv4Address(addresses, link.index))
      continue;
    for (auto const& route : routes.routes) {
      if (!isDefaultRoute(route))
        continue;
      for (auto const& hop : route.nexthops) {
        if (hop.index != link.index)
          continue;
        // The interface goes along: an IPv6 gateway is usually link-local.
        auto gateway = fn::IPAddress::fromBytes(hop.gateway.data(), hop.gateway.size(),
                                                static_cast<uint32_t>(link.index));
        if (gateway && std::find(gateways.begin(), gateways.end(), *gateway) == gateways.end())
          gateways.push_back(*gateway);
      }
    }
  }
  return gateways;
}

}  // namespace core

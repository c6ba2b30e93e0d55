// The adapters from rtnetlink: the links, their IPv4 addresses and the main table's default
// routes, IPv4 then IPv6.

// net/if.h before the kernel's headers, which then leave out what it declares.
#include <net/if.h>
// clang-format off
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
// clang-format on

#include <filesystem>

#include "core/network_adapter.h"
#include "foundation/exception.h"
#include "foundation/netlink_linux.h"

namespace core {
namespace {

// Wireless adapters have an Ethernet link layer here too; the wireless extensions' directory
// in sysfs tells them apart.
uint32_t interfaceType(fn::netlink::Link const& link) {
  if (link.type == ARPHRD_LOOPBACK)
    return NetworkAdapter::SOFTWARE_LOOPBACK;
  if (link.type != ARPHRD_ETHER)
    return NetworkAdapter::OTHER;
  char name[IF_NAMESIZE] = {};
  std::error_code ignored;
  if (::if_indextoname(static_cast<unsigned>(link.index), name) &&
      std::filesystem::exists(std::string("/sys/class/net/") + name + "/wireless", ignored))
    return NetworkAdapter::IEEE80211;
  return NetworkAdapter::ETHERNET;
}

bool isDefaultRoute(fn::netlink::Route const& route) {
  return route.dstLength == 0 && route.type == RTN_UNICAST && route.table == RT_TABLE_MAIN;
}

}  // namespace

std::vector<NetworkAdapter> listNetworkAdapters() {
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

  std::vector<NetworkAdapter> adapters;
  for (auto const& link : links.links) {
    NetworkAdapter adapter;
    adapter.interfaceType = interfaceType(link);
    for (auto const& entry : addresses.addresses) {
      if (entry.index != link.index)
        continue;
      if (auto address = fn::IPAddress::fromBytes(entry.bytes.data(), entry.bytes.size()))
        adapter.unicastAddresses.push_back(*address);
    }
    for (auto const& route : routes.routes) {
      if (!isDefaultRoute(route))
        continue;
      for (auto const& hop : route.nexthops) {
        // The interface goes along: an IPv6 gateway is usually link-local.
        if (hop.index != link.index)
          continue;
        if (auto gateway = fn::IPAddress::fromBytes(hop.gateway.data(), hop.gateway.size(),
                                                    static_cast<uint32_t>(link.index)))
          adapter.gateways.push_back(*gateway);
      }
    }
    adapters.push_back(std::move(adapter));
  }
  return adapters;
}

}  // namespace core

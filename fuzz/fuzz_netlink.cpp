// Feeds arbitrary bytes to the rtnetlink parser as if the kernel had sent them, and uses what it
// makes of them the way the network signature does. Nothing may crash or read out of bounds.

#include <cstddef>
#include <cstdint>

#include "foundation/ip_address.h"
#include "foundation/netlink_linux.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  fn::netlink::Tables tables;
  fn::netlink::parse(data, size, tables);
  size_t seen = 0;
  for (auto const& address : tables.addresses) {
    if (auto ip = fn::IPAddress::fromBytes(address.bytes.data(), address.bytes.size()))
      seen += ip->toString().size() + ip->isUnicast() + ip->isLinkLocal() + ip->isLoopback();
  }
  for (auto const& route : tables.routes) {
    for (auto const& hop : route.nexthops) {
      if (auto ip = fn::IPAddress::fromBytes(hop.gateway.data(), hop.gateway.size()))
        seen += ip->toString().size();
    }
  }
  for (auto const& neighbour : tables.neighbours)
    seen += neighbour.linkAddress.toHex().size();
  for (auto const& link : tables.links)
    seen += link.name.size();
  return seen == SIZE_MAX;
}

// The choice of the signature's gateways from synthetic adapter lists, the same on every
// platform, and the system's own list.

#include "core/network_adapter.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "foundation/exception.h"

namespace core {
namespace {

fn::IPAddress ip(char const* text) {
  auto address = fn::IPAddress::fromString(text);
  EXPECT_TRUE(address) << text;
  return address.value_or(fn::IPAddress());
}

std::vector<fn::IPAddress> ips(std::initializer_list<char const*> texts) {
  std::vector<fn::IPAddress> addresses;
  for (auto text : texts)
    addresses.push_back(ip(text));
  return addresses;
}

NetworkAdapter adapter(uint32_t type,
                       std::initializer_list<char const*> addresses,
                       std::initializer_list<char const*> gateways) {
  return {type, ips(addresses), ips(gateways)};
}

TEST(NetworkAdapter, GatewaysOfEthernetAndWirelessAdaptersWithAUsableIPv4Address) {
  constexpr uint32_t ETHERNET = NetworkAdapter::ETHERNET, WIRELESS = NetworkAdapter::IEEE80211;
  constexpr uint32_t TUNNEL = 131, PPP = 23;
  struct Case {
    char const* name;
    std::vector<NetworkAdapter> adapters;
    std::vector<fn::IPAddress> expected;
  } const cases[] = {
      {"wireless counts, in adapter order, gateways in their order",
       {adapter(WIRELESS, {"10.0.0.5"}, {"10.0.0.1", "fe80::1"}),
        adapter(ETHERNET, {"192.168.1.10"}, {"192.168.1.1"})},
       ips({"10.0.0.1", "fe80::1", "192.168.1.1"})},
      {"a gateway shared by two adapters occurs once",
       {adapter(ETHERNET, {"192.168.1.10"}, {"192.168.1.1"}),
        adapter(WIRELESS, {"192.168.1.11"}, {"192.168.1.1"})},
       ips({"192.168.1.1"})},
      {"other interface types never contribute",
       {adapter(TUNNEL, {"10.8.0.2"}, {"10.8.0.1"}), adapter(PPP, {"10.9.0.2"}, {"10.9.0.1"}),
        adapter(NetworkAdapter::SOFTWARE_LOOPBACK, {"127.0.0.1"}, {"127.0.0.2"}),
        adapter(ETHERNET, {"192.168.1.10"}, {"192.168.1.1"})},
       ips({"192.168.1.1"})},
      {"link-local, loopback, unspecified and IPv6-only addresses do not count",
       {adapter(ETHERNET, {"169.254.5.10", "2001:db8::10"}, {"169.254.5.1", "2001:db8::1"}),
        adapter(ETHERNET, {"127.0.0.2"}, {"10.1.0.1"}),
        adapter(ETHERNET, {"0.0.0.0"}, {"10.2.0.1"}), adapter(WIRELESS, {}, {"10.3.0.1"})},
       {}},
      {"one usable address among others is enough",
       {adapter(ETHERNET, {"fe80::10", "169.254.5.10", "192.168.1.10"}, {"2001:db8::1"})},
       ips({"2001:db8::1"})},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(selectActiveGateways(c.adapters), c.expected);
  }
}

TEST(NetworkAdapter, TheSystemListsItsLoopbackAdapter) {
  std::vector<NetworkAdapter> adapters;
  try {
    adapters = listNetworkAdapters();
  } catch (fn::IOException const& e) {
    // Windows sizes the list for IPv4 alone and then fetches both families: where the IPv6
    // entries do not fit, the query fails with ERROR_BUFFER_OVERFLOW, and says so.
    EXPECT_EQ(e.message(), "Could not get network adapters info");
    EXPECT_EQ(e.info().winError, 111);
    return;
  }
  auto loopback = std::ranges::find_if(adapters, [](NetworkAdapter const& a) {
    return a.interfaceType == NetworkAdapter::SOFTWARE_LOOPBACK;
  });
  ASSERT_NE(loopback, adapters.end());
  EXPECT_NE(std::ranges::find(loopback->unicastAddresses, ip("127.0.0.1")),
            loopback->unicastAddresses.end());
}

}  // namespace
}  // namespace core

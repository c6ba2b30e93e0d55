// Neighbours' hardware addresses from the IP helper: the neighbour table first, so that a known
// gateway costs no traffic; otherwise the system resolves it (ARP for IPv4, neighbour discovery
// for IPv6), which blocks for a few seconds at most.

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
// clang-format on

#include <cstring>

#include "foundation/exception.h"
#include "foundation/mac_address.h"

namespace fn {
namespace {

bool sameAddress(SOCKADDR_INET const& entry, IPAddress const& address) {
  if (address.family() == IPAddress::Family::IPV4)
    return entry.si_family == AF_INET && std::memcmp(&entry.Ipv4.sin_addr, address.addr(), 4) == 0;
  return entry.si_family == AF_INET6 && std::memcmp(&entry.Ipv6.sin6_addr, address.addr(), 16) == 0;
}

bool usable(MIB_IPNET_ROW2 const& row) {
  return row.PhysicalAddressLength == 6 && row.State != NlnsUnreachable &&
         row.State != NlnsIncomplete;
}

MacAddress fromRow(MIB_IPNET_ROW2 const& row) {
  std::array<uint8_t, 6> bytes;
  std::memcpy(bytes.data(), row.PhysicalAddress, 6);
  return MacAddress(bytes);
}

std::optional<MacAddress> lookUp(IPAddress const& address) {
  // One family at a time: not every implementation lists both at once.
  MIB_IPNET_TABLE2* table = nullptr;
  ADDRESS_FAMILY family = address.family() == IPAddress::Family::IPV4 ? AF_INET : AF_INET6;
  if (GetIpNetTable2(family, &table) != NO_ERROR) {
    // Some implementations hand out a table along with an error.
    if (table)
      FreeMibTable(table);
    return std::nullopt;
  }
  std::optional<MacAddress> found;
  for (ULONG i = 0; i < table->NumEntries && !found; ++i) {
    auto const& row = table->Table[i];
    if (!sameAddress(row.Address, address) || !usable(row))
      continue;
    if (address.scopeId() != 0 && row.InterfaceIndex != address.scopeId())
      continue;
    found = fromRow(row);
  }
  FreeMibTable(table);
  return found;
}

[[noreturn]] void fail(char const* message, IPAddress const& address, unsigned long error) {
  auto failure = withDetail(IOException(message), address.toString());
  failure.info().winError = static_cast<int64_t>(error);
  throw failure;
}

}  // namespace

MacAddress MacAddress::fromIPAddress(IPAddress const& address) {
  if (address.family() == IPAddress::Family::NONE)
    throw IOException("No address to resolve a MAC address for");
  if (auto known = lookUp(address))
    return *known;
  if (address.family() == IPAddress::Family::IPV4) {
    // SendARP finds the interface from the routing table itself.
    IPAddr destination;
    std::memcpy(&destination, address.addr(), 4);
    ULONG mac[2] = {};
    ULONG length = 6;
    DWORD error = SendARP(destination, 0, mac, &length);
    if (error != NO_ERROR || length != 6)
      fail("No neighbour answered for the address", address, error);
    std::array<uint8_t, 6> bytes;
    std::memcpy(bytes.data(), mac, 6);
    return MacAddress(bytes);
  }
  // Looked up rather than imported: Wine lacks it, and an imported function it lacks aborts
  // the process when called.
  using Resolve = NETIO_STATUS(WINAPI*)(MIB_IPNET_ROW2*, SOCKADDR_INET const*);
  auto resolve = reinterpret_cast<Resolve>(reinterpret_cast<void (*)()>(
      GetProcAddress(GetModuleHandleW(L"iphlpapi.dll"), "ResolveIpNetEntry2")));
  if (!resolve)
    fail("No neighbour answered for the address", address, ERROR_NOT_SUPPORTED);
  MIB_IPNET_ROW2 row{};
  row.Address.Ipv6.sin6_family = AF_INET6;
  std::memcpy(&row.Address.Ipv6.sin6_addr, address.addr(), 16);
  row.InterfaceIndex = address.scopeId();
  DWORD error = resolve(&row, nullptr);
  if (error != NO_ERROR || !usable(row))
    fail("No neighbour answered for the address", address, error);
  return fromRow(row);
}

}  // namespace fn

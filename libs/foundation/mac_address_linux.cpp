#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "foundation/exception.h"
#include "foundation/mac_address.h"
#include "foundation/netlink_linux.h"

namespace fn {
namespace {

// The kernel gives up on a neighbour after three probes a second apart by default.
constexpr auto RESOLVE_LIMIT = std::chrono::milliseconds(3500);
constexpr auto RESOLVE_STEP = std::chrono::milliseconds(20);
// The discard port: the datagram that makes the kernel resolve the neighbour asks nothing of it.
constexpr uint16_t DISCARD_PORT = 9;

enum class Lookup { FOUND, PENDING, FAILED };

Lookup lookUp(netlink::Socket& socket, IPAddress const& address, MacAddress& found) {
  int family = address.family() == IPAddress::Family::IPV4 ? AF_INET : AF_INET6;
  Lookup result = Lookup::PENDING;
  for (auto const& entry : socket.dump(RTM_GETNEIGH, family).neighbours) {
    if (entry.address.size() != address.length() ||
        std::memcmp(entry.address.data(), address.addr(), address.length()) != 0)
      continue;
    if (address.scopeId() != 0 && entry.index != static_cast<int>(address.scopeId()))
      continue;
    bool usable = (entry.state & (NUD_INCOMPLETE | NUD_FAILED)) == 0;
    if (usable && entry.linkAddress.size() == 6) {
      std::array<uint8_t, 6> bytes;
      std::memcpy(bytes.data(), entry.linkAddress.data(), 6);
      found = MacAddress(bytes);
      return Lookup::FOUND;
    }
    if (entry.state & NUD_FAILED)
      result = Lookup::FAILED;
  }
  return result;
}

// An empty datagram to the neighbour: the kernel must know its hardware address to send it, so
// it starts resolving (ARP or neighbour discovery) on the right interface.
// The errno when the datagram could not even be queued (no route to the address): nothing
// will resolve then. 0 when it was.
int provokeResolution(IPAddress const& address) {
  bool v4 = address.family() == IPAddress::Family::IPV4;
  int fd = ::socket(v4 ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0)
    return errno;
  ssize_t sent;
  if (v4) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(DISCARD_PORT);
    std::memcpy(&to.sin_addr, address.addr(), 4);
    sent = ::sendto(fd, "", 0, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  } else {
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(DISCARD_PORT);
    to.sin6_scope_id = address.scopeId();
    std::memcpy(&to.sin6_addr, address.addr(), 16);
    sent = ::sendto(fd, "", 0, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  }
  int error = sent == 0 ? 0 : errno;
  ::close(fd);
  return error;
}

}  // namespace

MacAddress MacAddress::fromIPAddress(IPAddress const& address) {
  if (address.family() == IPAddress::Family::NONE)
    throw IOException("No address to resolve a MAC address for");
  netlink::Socket socket;
  MacAddress found;
  Lookup state = lookUp(socket, address, found);
  if (state == Lookup::FOUND)
    return found;
  if (int error = provokeResolution(address))
    throw withErrno(withDetail(IOException("Cannot reach the address"), address.toString()), error);
  auto deadline = std::chrono::steady_clock::now() + RESOLVE_LIMIT;
  // A neighbour that failed before is probed afresh: wait for that probe's outcome.
  bool retried = state != Lookup::FAILED;
  while (std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(RESOLVE_STEP);
    state = lookUp(socket, address, found);
    if (state == Lookup::FOUND)
      return found;
    if (state == Lookup::FAILED && retried)
      break;
    if (state == Lookup::PENDING)
      retried = true;
  }
  throw withDetail(IOException("No neighbour answered for the address"), address.toString());
}

}  // namespace fn

#include <winsock2.h>

#include <ws2tcpip.h>

#include "foundation/ip_address.h"

namespace fn {

std::optional<IPAddress> IPAddress::fromString(std::string_view text) {
  String copy(text);
  uint8_t bytes[16];
  if (::inet_pton(AF_INET, copy.c_str(), bytes) == 1)
    return fromBytes(bytes, 4);
  if (::inet_pton(AF_INET6, copy.c_str(), bytes) == 1)
    return fromBytes(bytes, 16);
  return std::nullopt;
}

String IPAddress::toString() const {
  char text[INET6_ADDRSTRLEN] = {};
  if (_family == Family::NONE ||
      !::inet_ntop(_family == Family::IPV4 ? AF_INET : AF_INET6, _bytes.data(), text, sizeof text))
    return "(no address)";
  return text;
}

}  // namespace fn

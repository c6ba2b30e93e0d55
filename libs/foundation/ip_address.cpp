#include "foundation/ip_address.h"

#include <algorithm>
#include <cstring>

namespace fn {

std::optional<IPAddress> IPAddress::fromBytes(uint8_t const* bytes,
                                              size_t length,
                                              uint32_t scopeId) {
  if (length != 4 && length != 16)
    return std::nullopt;
  IPAddress address;
  address._family = length == 4 ? Family::IPV4 : Family::IPV6;
  std::memcpy(address._bytes.data(), bytes, length);
  address._scopeId = scopeId;
  return address;
}

size_t IPAddress::length() const {
  switch (_family) {
    case Family::IPV4:
      return 4;
    case Family::IPV6:
      return 16;
    case Family::NONE:
      break;
  }
  return 0;
}

bool IPAddress::isUnicast() const {
  if (_family == Family::NONE)
    return false;
  auto const* b = _bytes.data();
  bool unspecified = std::all_of(b, b + length(), [](uint8_t v) { return v == 0; });
  if (_family == Family::IPV4) {
    bool broadcast = std::all_of(b, b + 4, [](uint8_t v) { return v == 0xFF; });
    return !unspecified && !broadcast && (b[0] & 0xF0) != 0xE0;
  }
  return !unspecified && b[0] != 0xFF;
}

bool IPAddress::isLinkLocal() const {
  if (_family == Family::IPV4)
    return _bytes[0] == 169 && _bytes[1] == 254;
  return _family == Family::IPV6 && _bytes[0] == 0xFE && (_bytes[1] & 0xC0) == 0x80;
}

bool IPAddress::isLoopback() const {
  if (_family == Family::IPV4)
    return _bytes[0] == 127;
  if (_family != Family::IPV6)
    return false;
  return std::all_of(_bytes.begin(), _bytes.end() - 1, [](uint8_t v) { return v == 0; }) &&
         _bytes[15] == 1;
}

}  // namespace fn

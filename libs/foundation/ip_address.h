#pragma once

// fn::IPAddress: an IPv4 or IPv6 address as its bytes in network order, with the interface
// (scope) an IPv6 link-local address belongs to. Equality compares family and bytes only: the
// same gateway reached through two interfaces is one gateway.

#include <array>
#include <cstdint>
#include <optional>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

class FN_EXPORT IPAddress {
public:
  enum class Family { NONE, IPV4, IPV6 };

  IPAddress() = default;
  /// 4 bytes make an IPv4 address, 16 an IPv6 one; nullopt for any other length.
  static std::optional<IPAddress> fromBytes(uint8_t const* bytes,
                                            size_t length,
                                            uint32_t scopeId = 0);
  /// The usual text forms ("192.168.1.1", "fe80::1"); nullopt for anything else.
  static std::optional<IPAddress> fromString(std::string_view text);

  Family family() const { return _family; }
  uint8_t const* addr() const { return _bytes.data(); }
  /// 4, 16, or 0 for no address.
  size_t length() const;
  uint32_t scopeId() const { return _scopeId; }

  /// Neither unspecified, multicast nor the IPv4 broadcast address.
  bool isUnicast() const;
  /// 169.254.0.0/16 or fe80::/10.
  bool isLinkLocal() const;
  /// 127.0.0.0/8 or ::1.
  bool isLoopback() const;

  String toString() const;

  bool operator==(IPAddress const& other) const {
    return _family == other._family && _bytes == other._bytes;
  }

private:
  Family _family = Family::NONE;
  std::array<uint8_t, 16> _bytes{};
  uint32_t _scopeId = 0;
};

}  // namespace fn

template <>
struct fmt::formatter<fn::IPAddress> : fmt::formatter<std::string_view> {
  auto format(fn::IPAddress const& a, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(a.toString()), ctx);
  }
};

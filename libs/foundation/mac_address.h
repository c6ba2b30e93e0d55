#pragma once

// fn::MacAddress: a six-byte hardware address; the empty one is six zero bytes.

#include <array>
#include <cstdint>

#include "foundation/byte_array.h"
#include "foundation/export.h"
#include "foundation/ip_address.h"

namespace fn {

class FN_EXPORT MacAddress {
public:
  MacAddress() = default;
  explicit MacAddress(std::array<uint8_t, 6> bytes) : _bytes(bytes) {}

  /// The hardware address of the neighbour `address` on a directly attached network, from the
  /// system's neighbour table. When the table does not know it yet, it is resolved (the system
  /// asks the network), waiting a few seconds at most. IOException when it cannot be found.
  static MacAddress fromIPAddress(IPAddress const& address);

  std::array<uint8_t, 6> const& bytes() const { return _bytes; }
  ByteArray toByteArray() const { return ByteArray(_bytes.begin(), _bytes.end()); }
  /// "00:11:22:33:44:55".
  String toString() const;
  bool operator==(MacAddress const&) const = default;

private:
  std::array<uint8_t, 6> _bytes{};
};

}  // namespace fn

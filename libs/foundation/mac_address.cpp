#include "foundation/mac_address.h"

namespace fn {

String MacAddress::toString() const {
  return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", _bytes[0], _bytes[1], _bytes[2],
                     _bytes[3], _bytes[4], _bytes[5]);
}

}  // namespace fn

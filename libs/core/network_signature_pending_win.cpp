// Placeholder until the IP helper version lands.
#include "core/network_signature.h"
#include "foundation/exception.h"

namespace core {

std::vector<fn::IPAddress> NetworkSignature::getActiveGateways() {
  throw fn::IOException("Could not get network adapters info");
}

}  // namespace core

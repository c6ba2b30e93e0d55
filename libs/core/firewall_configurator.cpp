#include "core/firewall_configurator.h"

namespace core {

FirewallConfigurator::~FirewallConfigurator() = default;

}  // namespace core

#include "core/firewall_configurator.h"
#include "foundation/logging/category.h"

namespace core {
namespace {

fn::logging::Category logFirewall("core.firewall");

// The system firewalls here are configured by the system's administrator, not the application.
class UnsupportedFirewallConfigurator : public FirewallConfigurator {
public:
  bool initialize(bool) override {
    logFirewall.log(fn::logging::ERR,
                    "The firewall configurator exists only on Windows; nothing is configured here");
    return false;
  }
  bool isFirewallEnabled(bool&) override { return false; }
  bool isApplicationAuthorized(bool&, bool&, fn::String const&) override { return false; }
  bool authorizeApplication(fn::String const&, fn::String const&, bool, bool) override {
    return false;
  }
};

}  // namespace

std::unique_ptr<FirewallConfigurator> FirewallConfigurator::createBaseConfigurator() {
  return std::make_unique<UnsupportedFirewallConfigurator>();
}

std::unique_ptr<FirewallConfigurator> FirewallConfigurator::createAdvancedConfigurator() {
  return std::make_unique<UnsupportedFirewallConfigurator>();
}

}  // namespace core

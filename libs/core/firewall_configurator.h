#pragma once

// core::FirewallConfigurator: finds out whether the system firewall is on and lets the
// application's executable through it, asking for administrator rights when it must.
//
// Two implementations stand behind the interface on Windows: createBaseConfigurator() uses the
// older firewall interface (a list of authorised applications in the current profile),
// createAdvancedConfigurator() the newer one (rules per direction and profile). Elsewhere both
// factories return a configurator whose initialize() logs that the firewall configurator exists
// only on Windows and fails, and whose other operations fail. Nothing throws: every failure is
// a log line and a false result. An object is used on the thread that initialised it.

#include <memory>

#include "core/export.h"
#include "foundation/string.h"

namespace core {

class CORE_EXPORT FirewallConfigurator {
public:
  virtual ~FirewallConfigurator();

  /// Sets up access to the firewall, raised to administrator rights with `elevated`.
  virtual bool initialize(bool elevated) = 0;
  /// Writes whether the firewall is on; returns whether that could be found out.
  virtual bool isFirewallEnabled(bool& enabled) = 0;
  /// Writes whether the executable at `path` may accept and make connections.
  virtual bool isApplicationAuthorized(bool& inbound, bool& outbound, fn::String const& path) = 0;
  /// Lets the executable at `path` (shown as `name`) through in the directions asked for.
  virtual bool authorizeApplication(fn::String const& path,
                                    fn::String const& name,
                                    bool inbound,
                                    bool outbound) = 0;

  static std::unique_ptr<FirewallConfigurator> createBaseConfigurator();
  static std::unique_ptr<FirewallConfigurator> createAdvancedConfigurator();
};

}  // namespace core

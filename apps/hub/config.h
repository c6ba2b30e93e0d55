#pragma once

// The hub's configuration file: which modules it runs and how it watches them.
//
//   {
//     "product": "Lumaren",
//     "timeout": 30,
//     "modules": [
//       { "name": "announcer", "inProcess": true, "launchFirst": true },
//       { "name": "greeter" }
//     ]
//   }
//
// "product" (optional, default "Lumaren") is the product the hub and its modules belong to, by
// its short name. "timeout" (seconds, optional, default 30) is the liveness time-out of the
// dispatcher.
// Each module has a "name": the file name, without suffix, of its library in the modules
// directory. "inProcess" (default false) loads the library into the hub instead of starting it
// in a module loader process; "launchFirst" (in-process modules only) starts it before the
// others. Unknown keys are errors, so that a misspelt option is not silently ignored.

#include <string_view>
#include <vector>

#include "core/app_info.h"
#include "core/ipc/module_definition.h"
#include "foundation/duration.h"
#include "foundation/string.h"

namespace hub {

struct ModuleConfig {
  fn::String name;
  bool inProcess = false;
  bool launchFirst = false;
};

struct HubConfig {
  core::AppInfo::App product = core::AppInfo::App::LUMAREN;
  fn::Duration timeout = fn::Duration::seconds(30);
  std::vector<ModuleConfig> modules;
};

/// Reads a configuration from its JSON text; DataFormatException with `path` and a message
/// naming the offending entry for anything it cannot use.
HubConfig parseConfig(std::string_view text, fn::String const& path = {});
HubConfig loadConfig(fn::String const& path);

/// The module definitions the configuration describes; the caller owns them.
std::vector<ipc::ModuleDefinition*> definitionsOf(HubConfig const& config);

}  // namespace hub

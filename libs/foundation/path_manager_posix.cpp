#include <pwd.h>
#include <unistd.h>

#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/path_manager.h"

namespace fn {
namespace {

String homeDirectory() {
  String home = Environment::get("HOME");
  if (!home.empty())
    return home;
  if (passwd const* entry = ::getpwuid(::getuid()); entry && entry->pw_dir)
    return String(entry->pw_dir);
  throw RuntimeException("No home directory for the application's files");
}

// An XDG base directory: the variable when it holds an absolute path, else the default
// below the home directory.
String xdgDirectory(char const* variable, char const* fallbackBelowHome) {
  String value = Environment::get(variable);
  if (value.startsWith("/"))
    return value;
  return String(homeDirectory() + "/" + fallbackBelowHome);
}

}  // namespace

String PathManager::platformDirectory(int location, String const& applicationName) {
  String testRoot = Environment::get(TEST_ROOT_VARIABLE);
  bool testing = !testRoot.empty();
  auto base = [&](char const* variable, char const* belowHome, char const* belowTestRoot) {
    return testing ? String(testRoot + "/" + belowTestRoot) : xdgDirectory(variable, belowHome);
  };
  switch (location) {
    case USER_FILES:
      return String(base("XDG_DOCUMENTS_DIR", "Documents", "documents") + "/" + applicationName);
    // One data directory on this platform; Windows keeps configuration elsewhere.
    case USER_DATA:
    case APPLICATION_DATA:
      return String(base("XDG_DATA_HOME", ".local/share", "data") + "/" + applicationName);
    case LOGS:
      return String(base("XDG_STATE_HOME", ".local/state", "state") + "/" + applicationName +
                    "/logs");
  }
  throw withDetail(RangeException("Unknown path location"), String::number(location));
}

}  // namespace fn

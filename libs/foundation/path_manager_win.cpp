#include <windows.h>

#include <knownfolders.h>
#include <shlobj.h>

#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/path_manager.h"
#include "foundation/wide_string_win.h"

namespace fn {
namespace {

String knownFolder(KNOWNFOLDERID const& id) {
  wchar_t* path = nullptr;
  HRESULT result = ::SHGetKnownFolderPath(id, KF_FLAG_CREATE, nullptr, &path);
  String folder = SUCCEEDED(result) ? fromWide(path) : String();
  ::CoTaskMemFree(path);
  if (folder.empty())
    throw withDetail(RuntimeException("No known folder for the application's files"),
                     fmt::format("HRESULT {:#x}", static_cast<uint32_t>(result)));
  return folder;
}

}  // namespace

String PathManager::platformDirectory(int location, String const& applicationName) {
  String testRoot = Environment::get(TEST_ROOT_VARIABLE);
  bool testing = !testRoot.empty();
  auto base = [&](KNOWNFOLDERID const& id, char const* belowTestRoot) {
    return testing ? String(testRoot + "/" + belowTestRoot) : knownFolder(id);
  };
  switch (location) {
    case USER_FILES:
      return String(base(FOLDERID_Documents, "documents") + "/" + applicationName);
    // Settings and passwords follow the user between machines; the data that configures the
    // application and the logs stay on this one.
    case USER_DATA:
      return String(base(FOLDERID_RoamingAppData, "data") + "/" + applicationName);
    case APPLICATION_DATA:
      return String(base(FOLDERID_LocalAppData, "data") + "/" + applicationName);
    case LOGS:
      return String(base(FOLDERID_LocalAppData, "state") + "/" + applicationName + "/logs");
  }
  throw withDetail(RangeException("Unknown path location"), String::number(location));
}

}  // namespace fn

#include "foundation/path_manager.h"

#include "foundation/file.h"

namespace fn {

PathManager& PathManager::instance() {
  // Never destroyed: paths may be asked for while other statics are torn down.
  static PathManager* manager = new PathManager();
  return *manager;
}

void PathManager::setApplicationName(String name) {
  std::lock_guard lock(_mutex);
  _applicationName = std::move(name);
}

String PathManager::applicationName() const {
  std::lock_guard lock(_mutex);
  return _applicationName;
}

String PathManager::getPath(int location, std::string_view name, bool create) const {
  String directory = platformDirectory(location, applicationName());
  if (create)
    File(directory).createDirectories(0700);
  if (name.empty())
    return directory;
  return String(directory + "/" + String(name));
}

}  // namespace fn

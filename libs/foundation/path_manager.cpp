#include "foundation/path_manager.h"

#include <filesystem>

#include "foundation/file.h"
#include "foundation/uv/process.h"

namespace fn {

PathManager& PathManager::instance() {
  // Never destroyed: paths may be asked for while other statics are torn down.
  static PathManager* manager = new PathManager();
  return *manager;
}

void PathManager::setApplicationNameSource(NameSource source) {
  std::lock_guard lock(_mutex);
  _nameSource = std::move(source);
}

void PathManager::setApplicationName(String name) {
  std::lock_guard lock(_mutex);
  _applicationName = std::move(name);
}

String PathManager::currentName() const {
  if (_applicationName)
    return *_applicationName;
  if (_nameSource) {
    if (auto name = _nameSource())
      return *name;
  }
  return DEFAULT_APPLICATION_NAME;
}

String PathManager::applicationName() const {
  std::lock_guard lock(_mutex);
  return currentName();
}

std::optional<String> PathManager::nameInUse() const {
  std::lock_guard lock(_mutex);
  return _nameInUse;
}

void PathManager::locateApplication() const {
  if (_applicationDirectory)
    return;
  std::filesystem::path directory =
      std::filesystem::path(std::string(uv::executablePath())).lexically_normal().parent_path();
  _hasBinDirectory = directory.filename() == "bin";
  if (_hasBinDirectory)
    directory = directory.parent_path();
  _applicationDirectory = String(directory.string());
}

String PathManager::applicationDirectory() const {
  std::lock_guard lock(_mutex);
  locateApplication();
  return *_applicationDirectory;
}

bool PathManager::hasBinDirectory() const {
  std::lock_guard lock(_mutex);
  locateApplication();
  return _hasBinDirectory;
}

void PathManager::setApplicationDirectory(String directory, bool hasBinDirectory) {
  std::lock_guard lock(_mutex);
  _applicationDirectory = std::move(directory);
  _hasBinDirectory = hasBinDirectory;
}

String PathManager::getPath(int location, std::string_view name, bool create) const {
  String directory;
  if (location == APPLICATION) {
    directory = applicationDirectory();
  } else {
    std::lock_guard lock(_mutex);
    String applicationName = currentName();
    directory = platformDirectory(location, applicationName);
    if (!_nameInUse)
      _nameInUse = std::move(applicationName);
  }
  String path = name.empty() ? directory : String(directory + "/" + String(name));
  // A name may carry folders of its own ("logging_profiles/x"): those are created too.
  if (create)
    File(name.empty() ? directory : File(path).directory()).createDirectories(0700);
  return path;
}

}  // namespace fn

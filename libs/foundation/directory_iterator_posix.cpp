#include <dirent.h>

#include <cerrno>

#include "foundation/directory_iterator.h"
#include "foundation/file.h"

namespace fn {

struct DirectoryIterator::Impl {
  ~Impl() { ::closedir(dir); }
  DIR* dir = nullptr;
  String directory;
};

DirectoryIterator::DirectoryIterator() = default;

DirectoryIterator::DirectoryIterator(String const& directory) {
  DIR* dir = ::opendir(directory.c_str());
  if (!dir)
    throwFileError("opendir", directory, errno);
  _impl = std::make_unique<Impl>();
  _impl->dir = dir;
  _impl->directory = directory.endsWith("/") ? directory : String(directory + "/");
  ++*this;
}

DirectoryIterator::~DirectoryIterator() = default;
DirectoryIterator::DirectoryIterator(DirectoryIterator&&) noexcept = default;
DirectoryIterator& DirectoryIterator::operator=(DirectoryIterator&&) noexcept = default;

DirectoryIterator& DirectoryIterator::operator++() {
  while (_impl) {
    errno = 0;
    dirent const* entry = ::readdir(_impl->dir);
    if (!entry) {
      int error = errno;
      String directory = _impl->directory;
      _impl.reset();
      if (error)
        throwFileError("readdir", directory, error);
      break;
    }
    std::string_view name(entry->d_name);
    if (name == "." || name == "..")
      continue;
    _name = String(name);
    _entry = String(_impl->directory + _name);
    return *this;
  }
  _entry.clear();
  _name.clear();
  return *this;
}

}  // namespace fn

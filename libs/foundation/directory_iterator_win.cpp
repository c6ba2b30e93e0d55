#include <windows.h>

#include "foundation/directory_iterator.h"
#include "foundation/file.h"
#include "foundation/wide_string_win.h"

namespace fn {

struct DirectoryIterator::Impl {
  ~Impl() { ::FindClose(find); }
  HANDLE find = INVALID_HANDLE_VALUE;
  WIN32_FIND_DATAW data{};
  bool pending = true;  // FindFirstFileW already filled `data`
  String directory;
};

DirectoryIterator::DirectoryIterator() = default;

DirectoryIterator::DirectoryIterator(String const& directory) {
  auto impl = std::make_unique<Impl>();
  bool slash = directory.endsWith("/") || directory.endsWith("\\");
  impl->directory = slash ? directory : String(directory + "/");
  impl->find = ::FindFirstFileW(toWide(impl->directory + "*").c_str(), &impl->data);
  if (impl->find == INVALID_HANDLE_VALUE)
    throwFileError("FindFirstFileW", directory, errnoFromWindowsError(::GetLastError()));
  _impl = std::move(impl);
  ++*this;
}

DirectoryIterator::~DirectoryIterator() = default;
DirectoryIterator::DirectoryIterator(DirectoryIterator&&) noexcept = default;
DirectoryIterator& DirectoryIterator::operator=(DirectoryIterator&&) noexcept = default;

DirectoryIterator& DirectoryIterator::operator++() {
  while (_impl) {
    if (!_impl->pending && !::FindNextFileW(_impl->find, &_impl->data)) {
      DWORD error = ::GetLastError();
      String directory = _impl->directory;
      _impl.reset();
      if (error != ERROR_NO_MORE_FILES)
        throwFileError("FindNextFileW", directory, errnoFromWindowsError(error));
      break;
    }
    _impl->pending = false;
    String name = fromWide(_impl->data.cFileName);
    if (name == "." || name == "..")
      continue;
    _name = name;
    _entry = String(_impl->directory + _name);
    return *this;
  }
  _entry.clear();
  _name.clear();
  return *this;
}

}  // namespace fn

#include <windows.h>

#include "foundation/shared_library.h"
#include "foundation/wide_string_win.h"

namespace fn {

char const* const SHARED_LIBRARY_SUFFIX = ".dll";

SharedLibrary::~SharedLibrary() {
  if (_handle && !_keepLoaded)
    ::FreeLibrary(static_cast<HMODULE>(_handle));
}

void SharedLibrary::load(String const& path) {
  if (_handle) {
    throw withPath(SharedLibraryException("A shared library is already loaded here"), _path);
  }
  // The library's own directory is searched for its dependencies, as the loader does for an
  // executable; no error box for a missing dependency, the error is reported here.
  UINT previous = ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
  HMODULE handle = ::LoadLibraryExW(toWide(path).c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  DWORD error = ::GetLastError();
  ::SetErrorMode(previous);
  if (!handle) {
    throw withPath(withDetail(SharedLibraryException("Cannot load the shared library"),
                              windowsErrorText(error)),
                   path);
  }
  _handle = handle;
  _path = path;
}

void* SharedLibrary::getSymbol(char const* name) const {
  if (!_handle)
    throw withDetail(SharedLibraryException("No shared library is loaded"), String(name));
  FARPROC symbol = ::GetProcAddress(static_cast<HMODULE>(_handle), name);
  if (!symbol) {
    throw withPath(
        withDetail(SharedLibraryException("Symbol not found"), windowsErrorText(::GetLastError())),
        _path);
  }
  return reinterpret_cast<void*>(symbol);
}

}  // namespace fn

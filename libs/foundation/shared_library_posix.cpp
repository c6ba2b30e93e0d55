#include <dlfcn.h>

#include "foundation/shared_library.h"

namespace fn {

char const* const SHARED_LIBRARY_SUFFIX = ".so";

namespace {

String loaderError() {
  char const* text = ::dlerror();
  return text ? String(text) : String("unknown error");
}

}  // namespace

SharedLibrary::~SharedLibrary() {
  if (_handle && !_keepLoaded)
    ::dlclose(_handle);
}

void SharedLibrary::load(String const& path) {
  if (_handle) {
    throw withPath(SharedLibraryException("A shared library is already loaded here"), _path);
  }
  // RTLD_NOW: a library with unresolved symbols fails here, with the loader's text, instead
  // of crashing at the first call into it. RTLD_LOCAL: two modules may define the same names.
  void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    throw withPath(
        withDetail(SharedLibraryException("Cannot load the shared library"), loaderError()), path);
  }
  _handle = handle;
  _path = path;
}

void* SharedLibrary::getSymbol(char const* name) const {
  if (!_handle)
    throw withDetail(SharedLibraryException("No shared library is loaded"), String(name));
  ::dlerror();
  void* symbol = ::dlsym(_handle, name);
  if (!symbol) {
    throw withPath(withDetail(SharedLibraryException("Symbol not found"), loaderError()), _path);
  }
  return symbol;
}

}  // namespace fn

#pragma once

// fn::SharedLibrary: a shared library loaded into the running process, and the symbols it
// exports.
//
// Owned by whoever loaded it; destroying it unloads the library unless keepLoaded() was
// called, which is what a caller wants once objects made by the library's code may outlive
// this handle. Not thread-bound, but not synchronised either: one owner uses it.

#include "foundation/exception.h"
#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

/// A library that cannot be loaded, or a symbol it does not export. The platform loader's
/// text is the detail, the library's path the path.
FN_DECLARE_EXCEPTION(SharedLibraryException, RuntimeException);

/// How the names of shared library files end on this platform (".so").
FN_EXPORT extern char const* const SHARED_LIBRARY_SUFFIX;

class FN_EXPORT SharedLibrary {
public:
  SharedLibrary() = default;
  ~SharedLibrary();
  SharedLibrary(SharedLibrary const&) = delete;
  SharedLibrary& operator=(SharedLibrary const&) = delete;

  /// Loads the library at `path`, resolving all of its symbols now. Throws
  /// SharedLibraryException when it cannot, or when this object already holds a library.
  void load(String const& path);
  bool isLoaded() const { return _handle != nullptr; }
  String const& path() const { return _path; }

  /// The address of the exported symbol `name`; throws SharedLibraryException when the
  /// library does not export it or is not loaded.
  void* getSymbol(char const* name) const;
  template <typename T>
  T getSymbolAs(char const* name) const {
    return reinterpret_cast<T>(getSymbol(name));
  }

  /// Leaves the library in the process when this object goes.
  void keepLoaded() { _keepLoaded = true; }

private:
  void* _handle = nullptr;
  String _path;
  bool _keepLoaded = false;
};

}  // namespace fn

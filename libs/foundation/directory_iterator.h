#pragma once

// The entries of a directory, in the order the system lists them, without "." and "..".
// Each entry is the path of the directory joined with the entry's name. Opening a directory
// that cannot be read throws FileException with the path and errno.
//
//   for (DirectoryIterator it(path), end; it != end; ++it) use(*it);

#include <memory>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

class FN_EXPORT DirectoryIterator {
public:
  /// The end of any directory.
  DirectoryIterator();
  explicit DirectoryIterator(String const& directory);
  ~DirectoryIterator();
  DirectoryIterator(DirectoryIterator&&) noexcept;
  DirectoryIterator& operator=(DirectoryIterator&&) noexcept;

  String const& operator*() const { return _entry; }
  String const* operator->() const { return &_entry; }
  /// The name of the entry alone.
  String const& name() const { return _name; }
  DirectoryIterator& operator++();
  /// Only an iterator at the end equals another at the end.
  bool operator==(DirectoryIterator const& other) const { return atEnd() && other.atEnd(); }

private:
  struct Impl;
  bool atEnd() const { return !_impl; }

  std::unique_ptr<Impl> _impl;
  String _entry;
  String _name;
};

}  // namespace fn

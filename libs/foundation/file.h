#pragma once

#include "foundation/byte_array.h"
#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

/// A path on disk and the few operations on it the code base needs. Failures throw
/// FileException with the path and errno attached.
class FN_EXPORT File {
public:
  explicit File(String path) : _path(std::move(path)) {}
  String const& path() const { return _path; }

  bool exists() const;
  bool isDirectory() const;
  /// Removes a file (not a directory); a missing file is not an error.
  void remove() const;
  /// Renames onto `target`, replacing it.
  void moveTo(String const& target) const;
  /// Creates the directory and its parents with `mode`; existing ones are left as they are.
  void createDirectories(unsigned mode = 0755) const;

  ByteArray readAll() const;
  /// Writes `bytes` to the path (created with `mode`, truncated) and closes it.
  void writeAll(ByteArray const& bytes, unsigned mode = 0644) const;

  /// Waits until the file, or for a directory its entries (a rename into it), is on the
  /// storage device.
  void sync() const;

  /// The directory part of the path ("." when there is none).
  String directory() const;

private:
  String _path;
};

/// Throws FileException "<what> failed: <reason>" with the path and errno attached.
[[noreturn]] FN_EXPORT void throwFileError(char const* what, String const& path, int error);

}  // namespace fn

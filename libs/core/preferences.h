#pragma once

// A preferences file: one JSON file holding one value tree. The owner reads it with reload(),
// changes root() in memory and writes it back with save(). Nothing is cached or watched, and
// two objects on the same path are independent: the last save() wins.
//
// The file holds the members of the root object without the enclosing braces, so people can
// edit it as a list of "name": value lines. Fractions, timestamps and byte buffers are written
// as objects tagged with a "__type__" member.
//
// Not thread-safe; use one object on one thread at a time.

#include <cstdint>
#include <string_view>

#include "core/export.h"
#include "foundation/stream.h"
#include "foundation/string.h"
#include "foundation/value.h"

namespace core {

class CORE_EXPORT Preferences {
public:
  /// Does not touch the file system; the root starts as an empty object.
  explicit Preferences(fn::String path);
  Preferences(Preferences const& other);
  Preferences(Preferences&& other) noexcept;
  Preferences& operator=(Preferences const& other);
  Preferences& operator=(Preferences&& other) noexcept;
  ~Preferences();

  fn::String const& path() const { return _path; }
  fn::Value& root() { return _root; }
  fn::Value const& root() const { return _root; }

  /// The largest file reload() reads: preferences are small, and a file is read whole.
  static constexpr uint64_t MAX_FILE_SIZE = 16 * 1024 * 1024;

  /// Replaces the root with the file's content (an empty object when there is no file).
  /// A path that is not a regular file fails with FileException, a larger file than
  /// MAX_FILE_SIZE with DataFormatException; like any read or parse failure, this propagates
  /// and leaves the root as it was.
  void reload();

  /// Writes the root to a temporary file beside the target, forces it to disk and renames it
  /// over the target, so that readers, a crash or a power cut see either the old or the new
  /// file. The result is read back; if that fails the file is written once more. Temporary
  /// files of this path that writers killed more than a minute ago left behind are removed.
  void save();

  /// The tree that a file with `content` holds; `path` is attached to parse errors.
  static fn::Value parse(std::string_view content, fn::String const& path = {});
  /// Writes `root` in the file's layout.
  static void write(fn::Value const& root, fn::OutputStream& stream);

private:
  fn::Value loadInternal() const;
  void saveInternal() const;
  void removeAbandonedTemporaries() const;

  fn::String _path;
  fn::Value _root;
};

}  // namespace core

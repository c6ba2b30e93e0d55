#pragma once

// Streams over files on disk. Failures throw FileException with the path and errno attached.

#include <cstdint>

#include "foundation/export.h"
#include "foundation/stream.h"
#include "foundation/string.h"

namespace fn {

/// Writes straight to a file (no buffering of its own: wrap it in a BufferedOutputStream).
class FN_EXPORT FileOutputStream : public OutputStream {
public:
  enum class Open { TRUNCATE, APPEND };
  /// Creates `path` with `mode` (subject to the umask); an existing file is truncated, or
  /// with APPEND written on at its end.
  explicit FileOutputStream(String path, unsigned mode = 0644, Open open = Open::TRUNCATE);
  /// Closes without reporting errors; call close() to learn about them.
  ~FileOutputStream() override;
  FileOutputStream(FileOutputStream const&) = delete;
  FileOutputStream& operator=(FileOutputStream const&) = delete;

  void write(void const* bytes, size_t count) override;
  /// Closes the file; a second call does nothing.
  void close() override;
  /// Waits until the bytes written so far are on the storage device.
  void sync();
  /// The file's size on disk now.
  uint64_t size() const;
  String const& path() const { return _path; }

private:
  String _path;
  int _fd = -1;
};

class FN_EXPORT FileInputStream : public InputStream {
public:
  /// Opens `path`. With `regularOnly`, anything but a regular file (a FIFO, a device, a
  /// directory) is refused with FileException "Not a regular file", without waiting for a
  /// writer to open a FIFO.
  explicit FileInputStream(String path, bool regularOnly = false);
  ~FileInputStream() override;
  FileInputStream(FileInputStream const&) = delete;
  FileInputStream& operator=(FileInputStream const&) = delete;

  size_t read(void* bytes, size_t count) override;
  String const& path() const { return _path; }
  /// The file's length in bytes.
  int64_t size() const;
  /// Moves the read position to `offset` bytes from the start.
  void seek(int64_t offset);

private:
  String _path;
  int _fd = -1;
};

}  // namespace fn

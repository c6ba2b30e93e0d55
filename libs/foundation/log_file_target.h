#pragma once

// fn::LogFileTarget: a log file with rotation.
//
// Shared by the sinks that write to it (made with makeAuto), callable from any thread (one
// mutex per file). Text
// collects in memory and goes to the file in large writes: at once for an urgent text (an
// error or a warning, so a crash right after cannot lose it), else within about a second from
// a flushing thread shared by all log files, and when the process exits normally.
//
// Rotation: when a write would take the file past the size limit, the file becomes ".1", ".1"
// becomes ".2", and so on; the file that would be number `fileCountLimit` is removed, so the
// file and its older generations never number more than the limit. The file opens on the
// first write, appending to what an earlier run left. When it cannot be opened, one line says
// so on standard error and the text is dropped, and the next write tries again.

#include <memory>
#include <mutex>
#include <string>

#include "foundation/duration.h"
#include "foundation/log_target.h"
#include "foundation/string.h"

namespace fn {

class FileOutputStream;

class FN_EXPORT LogFileTarget : public LogTarget {
public:
  /// How long text may wait in memory.
  static constexpr Duration FLUSH_DELAY = Duration::seconds(1);
  /// Text collected beyond this goes to the file at once.
  static constexpr size_t BUFFER_SIZE = 64 * 1024;

  explicit LogFileTarget(String path);
  ~LogFileTarget() override;

  /// Bytes a file may reach before it is rotated; 0 (the default) never rotates.
  void setSizeLimit(uint64_t bytes);
  /// How many files (the current one and its older generations) are kept; at least 1.
  void setFileCountLimit(unsigned count);
  uint64_t sizeLimit() const;
  unsigned fileCountLimit() const;
  String const& path() const { return _path; }

  void write(std::string_view text, bool urgent) override;
  void flush() override;

private:
  /// Under _mutex.
  void writeBuffer();
  bool open();
  void rotate();

  String const _path;
  mutable std::mutex _mutex;
  uint64_t _sizeLimit = 0;
  unsigned _fileCountLimit = 1;
  std::unique_ptr<FileOutputStream> _file;
  uint64_t _size = 0;
  std::string _buffer;
  /// The flusher will visit.
  bool _scheduled = false;
  bool _reportedFailure = false;
};

}  // namespace fn

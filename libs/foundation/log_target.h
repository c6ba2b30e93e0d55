#pragma once

// Where finished log text goes: the console or a log file. A target is shared by the sinks
// that write to it and may be written from any thread; each write() lands in one piece, so
// the lines of concurrent messages never interleave within a message.

#include <string_view>

#include "foundation/export.h"
#include "foundation/object.h"

namespace fn {

class FN_EXPORT LogTarget : public RefCountedObject {
public:
  ~LogTarget() override;
  /// Writes `text` in one piece. An `urgent` text (an error or a warning) is handed to the
  /// kernel before write() returns, so a crash right after cannot lose it; other text may
  /// wait in memory for about a second.
  virtual void write(std::string_view text, bool urgent) = 0;
  /// Hands everything written so far to the kernel.
  virtual void flush() {}
};

/// Writes to the process's standard error, unbuffered.
class FN_EXPORT LogConsoleTarget : public LogTarget {
public:
  void write(std::string_view text, bool urgent) override;
};

}  // namespace fn

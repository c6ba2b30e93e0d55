#pragma once

// core::ConsoleLogPostProcessor: captures what the process writes to standard error, cuts it
// into lines and lets callbacks inspect, rewrite or suppress each line before it goes on to
// the standard error that was in place before.
//
// init() replaces descriptor 2 by a pipe (close-on-exec, so no child process is handed its
// own ends) that one detached reader thread drains a byte at a time: lines of different
// writers stay whole, and text without a line feed waits for it. For each line the reader
// takes a copy of the callbacks under the lock and calls them in registration order, each
// seeing what the previous one made of the line; a line left empty is dropped. Callbacks run
// on the reader thread, so they must be thread-safe, and a callback unregistered while a line
// is on its way may still see that line. At exit the original standard error comes back and
// the reader passes on what is still in the pipe.

#include <mutex>
#include <vector>

#include "core/export.h"
#include "foundation/string.h"

namespace core {

class CORE_EXPORT ConsoleLogPostProcessor {
public:
  /// Takes the line (with its line feed) and may change it; emptying it suppresses it.
  using StandardErrorCallback = void (*)(fn::String& line);

  /// Starts capturing; later calls do nothing. std::system_error when the thread cannot be
  /// started, fn::IOException when the pipe cannot be made.
  static void init();
  /// Appends `callback`; registering one twice calls it twice per line.
  static void registerStandardErrorCallback(StandardErrorCallback callback);
  /// Removes every registration of `callback`.
  static void unregisterStandardErrorCallback(StandardErrorCallback callback);

private:
  static void runStandardError();
  /// Hands one finished line through the callbacks to the saved standard error.
  static void processLine(fn::String line);
  static void restoreAtExit();

  static std::vector<StandardErrorCallback> _standardErrorCallbacks;
  static std::mutex _standardErrorCallbacksMutex;
  /// The capture pipe: read end, write end.
  static int _pipe[2];
  static int savedStandardError;
};

}  // namespace core

#pragma once

// InputLines: the lines of standard input, for the interactive inspector.
//
// A thread of its own blocks in reading, so that the loop goes on answering the hub's pings
// while a person thinks; it hands each line over under a lock and wakes the loop with an
// empty posted task. Everything else is loop thread only. Destroying the object cuts the
// reader off: it may still be blocked in a read, so it is detached, and what it reads later is
// dropped (the process is about to end anyway).

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "foundation/run_loop.h"

namespace ctl {

class InputLines {
public:
  explicit InputLines(fn::RunLoop& loop);
  ~InputLines();
  InputLines(InputLines const&) = delete;
  InputLines& operator=(InputLines const&) = delete;

  /// Whether a line or the end of input is there to take.
  bool ready() const;
  /// The next line, or nullopt at the end of input. Only after ready().
  std::optional<std::string> take();

private:
  struct Shared {
    std::mutex mutex;
    fn::RunLoop* loop;
    std::deque<std::string> lines;
    bool ended = false;
  };
  std::shared_ptr<Shared> _shared;
};

}  // namespace ctl

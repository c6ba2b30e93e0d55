#pragma once

// fn::RunLoop: the event loop of a thread. Each process runs one on its main thread; the IPC
// layer and most services are bound to it and check it.
//
// post() may be called from any thread; the task runs later on the loop thread, never inside
// the caller. schedule() belongs to the loop thread and returns a Handle that cancels the
// call when invalidated or destroyed.

#include <functional>
#include <thread>

#include "foundation/duration.h"
#include "foundation/export.h"
#include "foundation/handle.h"

namespace fn {

namespace uv {
class Loop;
}

class FN_EXPORT RunLoop {
public:
  using Task = std::move_only_function<void()>;

  virtual ~RunLoop();

  /// Queues `task` to run on the loop thread after the current callback returns.
  virtual void post(Task task) = 0;
  /// Runs `task` once after `delay`. Loop thread only.
  [[nodiscard]] virtual Handle schedule(Duration delay, Task task) = 0;
  /// Makes run() return at the end of the current iteration.
  virtual void stop() = 0;
  /// The libuv loop underneath, for the stream and process wrappers.
  virtual uv::Loop& uvLoop() = 0;

  bool isCurrent() const { return _thread == std::this_thread::get_id(); }

  /// The loop of the calling thread, or null when the thread has none.
  static RunLoop* currentLoop();

protected:
  RunLoop();
  void makeCurrent();

private:
  std::thread::id _thread;
  RunLoop* _previous = nullptr;
};

/// For the top of loop-bound public methods.
FN_EXPORT void assertOnLoopThread(char const* file, char const* function, int line);
#define FN_ASSERT_LOOP_THREAD() ::fn::assertOnLoopThread(__FILE__, __func__, __LINE__)

}  // namespace fn

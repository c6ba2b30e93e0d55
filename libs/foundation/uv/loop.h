#pragma once

// fn::uv::Loop: the RunLoop over a libuv loop. Created and run on one thread; post() is the
// only member other threads may call.
//
// Besides posted tasks it offers end-of-iteration callbacks: work queued there runs after the
// current batch of I/O callbacks and before the loop next waits, which is how streams gather
// the frames of one iteration into few writes.

#include <uv.h>

#include <deque>
#include <mutex>
#include <vector>

#include "foundation/byte_array.h"
#include "foundation/run_loop.h"

namespace fn::uv {

class FN_EXPORT Loop : public RunLoop {
public:
  /// A loop of its own (uv_loop_init).
  Loop();
  /// Wraps libuv's default loop.
  static Loop& defaultLoop();
  ~Loop() override;

  void post(Task task) override;
  [[nodiscard]] Handle schedule(Duration delay, Task task) override;
  void stop() override;
  Loop& uvLoop() override { return *this; }

  /// Runs until stop() or until nothing is left that could produce an event.
  void run();
  /// Runs until `done()` is true after some callback, or until the loop has nothing left;
  /// returns done(). Meant for tests and tools that wait for one thing to settle.
  bool runUntil(std::function<bool()> const& done);

  /// Runs `task` before the loop next blocks. Loop thread only.
  void atEndOfIteration(Task task);

  uv_loop_t* raw() { return _loop; }

  /// Whether this process may run on more than one CPU (read when the loop was made). With
  /// one CPU, handing work to another process early only adds switches between the two.
  bool hasParallelism() const { return _parallelism; }

  /// The buffer the loop's streams read into when their reader consumes each chunk inside its
  /// callback: one per loop instead of one per connection, which keeps idle connections
  /// small. Null while it is lent to a read callback (a nested read takes a buffer of its own).
  ByteArray* lendReadBuffer();
  /// Takes the buffer back if `base` is its start (a read may be reported without one).
  void returnReadBuffer(void const* base) {
    if (base == _readBuffer.data())
      _readBufferLent = false;
  }

private:
  explicit Loop(uv_loop_t* loop);
  void init();
  static void preparePlatform();
  void drainLocal();
  void drainRemote();
  void runEndOfIteration();

  uv_loop_t _own{};
  uv_loop_t* _loop;
  uv_idle_t _idle{};
  uv_async_t _async{};
  uv_prepare_t _prepare{};
  uv_check_t _check{};
  std::deque<Task> _local;
  std::vector<Task> _endOfIteration;
  std::mutex _remoteMutex;
  std::vector<Task> _remote;
  bool _stopped = false;
  bool _parallelism = uv_available_parallelism() > 1;
  ByteArray _readBuffer;
  bool _readBufferLent = false;
};

FN_EXPORT void unhandledExceptionFromLoop() noexcept;

/// Runs `f` and reports any exception through fn::unhandledException(); every libuv callback
/// that enters our code goes through here, so a throwing handler never unwinds into libuv.
template <typename F>
void guarded(F&& f) noexcept {
  try {
    f();
  } catch (...) {
    unhandledExceptionFromLoop();
  }
}

}  // namespace fn::uv

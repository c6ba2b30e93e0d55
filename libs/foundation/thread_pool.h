#pragma once

// fn::ThreadPool: worker threads for blocking work that must not hold up a run loop.
//
// Threads are started on demand, up to the pool's limit, and wait for work when idle. Tasks run
// in the order they were scheduled, each on whichever thread is free; a task that blocks holds
// its thread, so the limit caps how many may block at once. schedule() may be called from any
// thread. stop() refuses further tasks, lets the queued ones finish and joins the threads;
// scheduling on a stopped pool is a bug of the caller and fails an assertion.
//
// The default pool is created on first use and never destroyed, so a task still blocked when
// the process ends holds nothing up.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "foundation/export.h"

namespace fn {

class FN_EXPORT ThreadPool {
public:
  using Task = std::move_only_function<void()>;

  explicit ThreadPool(size_t maxThreads);
  ~ThreadPool();
  ThreadPool(ThreadPool const&) = delete;
  ThreadPool& operator=(ThreadPool const&) = delete;

  /// The process's shared pool (four threads at most).
  static ThreadPool& defaultPool();

  void schedule(Task task);
  void stop();
  bool stopped() const;

private:
  void work();

  size_t const _maxThreads;
  mutable std::mutex _mutex;
  std::condition_variable _wake;
  std::deque<Task> _queue;
  std::vector<std::thread> _threads;
  size_t _idle = 0;
  bool _stopped = false;
};

}  // namespace fn

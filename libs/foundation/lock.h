#pragma once

// fn::Lock: a re-entrant lock. The thread that holds it may take it again (each lock() is
// matched by an unlock()); other threads wait until the holder has released it as often as it
// took it. It meets the standard Lockable requirements, so std::lock_guard, std::unique_lock
// and std::scoped_lock work with it.

#include <mutex>

namespace fn {

class Lock {
public:
  void lock() { _mutex.lock(); }
  /// Takes the lock if it is free or already held by this thread; never waits.
  bool try_lock() { return _mutex.try_lock(); }
  void unlock() { _mutex.unlock(); }

private:
  std::recursive_mutex _mutex;
};

}  // namespace fn

#include "foundation/thread_pool.h"

#include "foundation/assert.h"
#include "foundation/exception.h"

namespace fn {

ThreadPool::ThreadPool(size_t maxThreads) : _maxThreads(maxThreads ? maxThreads : 1) {}

ThreadPool::~ThreadPool() {
  stop();
}

ThreadPool& ThreadPool::defaultPool() {
  static ThreadPool* pool = new ThreadPool(4);
  return *pool;
}

void ThreadPool::schedule(Task task) {
  std::lock_guard lock(_mutex);
  if (_stopped) {
    FN_ASSERT_MSG(false, "Can not schedule task on stopped thread pool");
    return;
  }
  _queue.push_back(std::move(task));
  // Idle threads that were woken but have not taken their task yet still count as idle, so
  // compare with the queue: a task that blocks must not leave the next one waiting behind it.
  if (_queue.size() > _idle && _threads.size() < _maxThreads)
    _threads.emplace_back([this] { work(); });
  else
    _wake.notify_one();
}

void ThreadPool::stop() {
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(_mutex);
    _stopped = true;
    threads.swap(_threads);
  }
  _wake.notify_all();
  for (auto& thread : threads) {
    if (thread.get_id() == std::this_thread::get_id())
      thread.detach();
    else
      thread.join();
  }
}

bool ThreadPool::stopped() const {
  std::lock_guard lock(_mutex);
  return _stopped;
}

void ThreadPool::work() {
  std::unique_lock lock(_mutex);
  for (;;) {
    ++_idle;
    _wake.wait(lock, [this] { return _stopped || !_queue.empty(); });
    --_idle;
    if (_queue.empty())
      return;
    Task task = std::move(_queue.front());
    _queue.pop_front();
    lock.unlock();
    try {
      task();
    } catch (...) {
      unhandledException();
    }
    task = nullptr;
    lock.lock();
  }
}

}  // namespace fn

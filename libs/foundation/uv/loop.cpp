#include "foundation/uv/loop.h"

#include "foundation/exception.h"
#include "foundation/uv/status.h"
#include "foundation/uv/timer.h"

namespace fn::uv {

void unhandledExceptionFromLoop() noexcept {
  try {
    unhandledException();
  } catch (...) {
  }
}

Loop::Loop() : _loop(&_own) {
  Status("uv_loop_init", uv_loop_init(&_own)).throwOnError();
  init();
}

Loop::Loop(uv_loop_t* loop) : _loop(loop) {
  init();
}

Loop& Loop::defaultLoop() {
  static Loop* loop = new Loop(uv_default_loop());
  return *loop;
}

void Loop::init() {
  preparePlatform();
  makeCurrent();
  _loop->data = this;
  uv_idle_init(_loop, &_idle);
  _idle.data = this;
  uv_async_init(_loop, &_async, [](uv_async_t* h) { static_cast<Loop*>(h->data)->drainRemote(); });
  _async.data = this;
  uv_prepare_init(_loop, &_prepare);
  _prepare.data = this;
  uv_check_init(_loop, &_check);
  _check.data = this;
  // The loop's own handles never keep run() going by themselves.
  uv_unref(reinterpret_cast<uv_handle_t*>(&_async));
  uv_unref(reinterpret_cast<uv_handle_t*>(&_prepare));
  uv_unref(reinterpret_cast<uv_handle_t*>(&_check));
  auto endOfIteration = [](auto* h) { static_cast<Loop*>(h->data)->runEndOfIteration(); };
  uv_prepare_start(&_prepare, endOfIteration);
  uv_check_start(&_check, endOfIteration);
}

Loop::~Loop() {
  // Close whatever is still open (ours and any leaked wrapper's) and let the close
  // callbacks run, so that wrappers release themselves.
  uv_walk(
      _loop,
      [](uv_handle_t* h, void*) {
        if (!uv_is_closing(h))
          uv_close(h, nullptr);
      },
      nullptr);
  uv_run(_loop, UV_RUN_DEFAULT);
  _local.clear();
  _endOfIteration.clear();
  if (_loop == &_own)
    uv_loop_close(_loop);
}

void Loop::post(Task task) {
  if (isCurrent()) {
    _local.push_back(std::move(task));
    if (!uv_is_active(reinterpret_cast<uv_handle_t*>(&_idle))) {
      uv_idle_start(&_idle, [](uv_idle_t* h) { static_cast<Loop*>(h->data)->drainLocal(); });
    }
    return;
  }
  {
    std::lock_guard lock(_remoteMutex);
    _remote.push_back(std::move(task));
  }
  uv_async_send(&_async);
}

void Loop::drainLocal() {
  // Only the tasks queued before this pass run now; what they post runs on the next pass,
  // after the loop has polled for I/O once more.
  size_t count = _local.size();
  for (size_t i = 0; i < count && !_local.empty(); ++i) {
    Task task = std::move(_local.front());
    _local.pop_front();
    guarded([&] { task(); });
  }
  if (_local.empty())
    uv_idle_stop(&_idle);
}

void Loop::drainRemote() {
  std::vector<Task> tasks;
  {
    std::lock_guard lock(_remoteMutex);
    tasks.swap(_remote);
  }
  for (auto& task : tasks)
    post(std::move(task));
}

Handle Loop::schedule(Duration delay, Task task) {
  return Timer::schedule(*this, delay, std::move(task));
}

void Loop::stop() {
  _stopped = true;
  uv_stop(_loop);
}

void Loop::run() {
  _stopped = false;
  uv_run(_loop, UV_RUN_DEFAULT);
}

bool Loop::runUntil(std::function<bool()> const& done) {
  _stopped = false;
  while (!done() && !_stopped) {
    if (uv_run(_loop, UV_RUN_ONCE) == 0 && _local.empty() && !done())
      break;
  }
  return done();
}

void Loop::atEndOfIteration(Task task) {
  // While work is queued the prepare handle keeps the loop alive, so that run() cannot
  // return before it (a stream's gathered writes, say) ran. libuv computes the poll
  // time-out after the prepare callbacks, when the handle is unreferenced again.
  if (_endOfIteration.empty())
    uv_ref(reinterpret_cast<uv_handle_t*>(&_prepare));
  _endOfIteration.push_back(std::move(task));
}

void Loop::runEndOfIteration() {
  while (!_endOfIteration.empty()) {
    std::vector<Task> tasks;
    tasks.swap(_endOfIteration);
    for (auto& task : tasks)
      guarded([&] { task(); });
  }
  uv_unref(reinterpret_cast<uv_handle_t*>(&_prepare));
}

ByteArray* Loop::lendReadBuffer() {
  if (_readBufferLent)
    return nullptr;
  if (_readBuffer.empty())
    _readBuffer.resize(64 * 1024);
  _readBufferLent = true;
  return &_readBuffer;
}

}  // namespace fn::uv

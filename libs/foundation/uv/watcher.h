#pragma once

// fn::uv::Watcher<H>: a libuv prepare (uv_prepare_t), check (uv_check_t) or idle (uv_idle_t)
// handle whose callback runs once per loop iteration, before the loop waits for I/O (prepare),
// right after (check), or before prepare (idle; while one is active the loop does not block).
// An active watcher keeps the loop running.
//
// Loop thread only. The object keeps itself alive from creation until libuv's close callback;
// the owner must call close(), which is idempotent, and no callback runs after it.

#include <uv.h>

#include <functional>

#include "foundation/object.h"
#include "foundation/uv/loop.h"

namespace fn::uv {

template <typename Handle>
struct WatcherTraits;

template <>
struct WatcherTraits<uv_prepare_t> {
  static int init(uv_loop_t* loop, uv_prepare_t* h) { return uv_prepare_init(loop, h); }
  static int start(uv_prepare_t* h, uv_prepare_cb cb) { return uv_prepare_start(h, cb); }
  static int stop(uv_prepare_t* h) { return uv_prepare_stop(h); }
};

template <>
struct WatcherTraits<uv_check_t> {
  static int init(uv_loop_t* loop, uv_check_t* h) { return uv_check_init(loop, h); }
  static int start(uv_check_t* h, uv_check_cb cb) { return uv_check_start(h, cb); }
  static int stop(uv_check_t* h) { return uv_check_stop(h); }
};

template <>
struct WatcherTraits<uv_idle_t> {
  static int init(uv_loop_t* loop, uv_idle_t* h) { return uv_idle_init(loop, h); }
  static int start(uv_idle_t* h, uv_idle_cb cb) { return uv_idle_start(h, cb); }
  static int stop(uv_idle_t* h) { return uv_idle_stop(h); }
};

template <typename Handle>
class Watcher : public RefCountedObject {
public:
  static AutoPtr<Watcher> create(Loop& loop, std::function<void()> callback) {
    return AutoPtr<Watcher>(new Watcher(loop, std::move(callback)));
  }

  void start() {
    if (!_closing)
      WatcherTraits<Handle>::start(&_handle, &Watcher::fired);
  }
  void stop() { WatcherTraits<Handle>::stop(&_handle); }

  void close() {
    if (std::exchange(_closing, true))
      return;
    uv_close(reinterpret_cast<uv_handle_t*>(&_handle), [](uv_handle_t* h) {
      auto* self = static_cast<Watcher*>(h->data);
      self->_callback = nullptr;
      self->release();
    });
  }

private:
  Watcher(Loop& loop, std::function<void()> callback) : _callback(std::move(callback)) {
    WatcherTraits<Handle>::init(loop.raw(), &_handle);
    _handle.data = this;
    retain();  // released by the close callback
  }

  static void fired(Handle* h) {
    auto* self = static_cast<Watcher*>(h->data);
    AutoPtr<Watcher> protect(self);
    if (!self->_closing && self->_callback)
      guarded([&] { self->_callback(); });
  }

  Handle _handle{};
  std::function<void()> _callback;
  bool _closing = false;
};

using PrepareWatcher = Watcher<uv_prepare_t>;
using CheckWatcher = Watcher<uv_check_t>;
using IdleWatcher = Watcher<uv_idle_t>;

}  // namespace fn::uv

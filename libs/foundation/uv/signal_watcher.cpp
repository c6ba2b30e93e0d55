#include "foundation/uv/signal_watcher.h"

#include "foundation/uv/loop.h"

namespace fn::uv {
namespace {

// Keeps itself alive from start until libuv's close callback, like the timer: libuv needs the
// handle until the loop has closed it.
class Watch : public Cancellable {
public:
  Watch(Loop& loop, std::function<void()> task) : _task(std::move(task)) {
    uv_signal_init(loop.raw(), &_signal);
    _signal.data = this;
    retain();
  }

  void start(int signal) { uv_signal_start(&_signal, &Watch::received, signal); }

  void invalidate() override {
    if (!_watching)
      return;
    _watching = false;
    _task = nullptr;
    uv_close(reinterpret_cast<uv_handle_t*>(&_signal),
             [](uv_handle_t* h) { static_cast<Watch*>(h->data)->release(); });
  }
  bool valid() const override { return _watching; }

private:
  static void received(uv_signal_t* signal, int) {
    auto* self = static_cast<Watch*>(signal->data);
    AutoPtr<Watch> protect(self);
    if (self->_watching)
      guarded([&] { self->_task(); });
  }

  uv_signal_t _signal{};
  std::function<void()> _task;
  bool _watching = true;
};

}  // namespace

Handle SignalWatcher::watch(Loop& loop, int signal, std::function<void()> task) {
  auto watch = makeAuto<Watch>(loop, std::move(task));
  watch->start(signal);
  return Handle(watch);
}

}  // namespace fn::uv

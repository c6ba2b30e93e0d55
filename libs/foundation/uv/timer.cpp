#include "foundation/uv/timer.h"

#include "foundation/uv/loop.h"

namespace fn::uv {
namespace {

// Keeps itself alive from start until libuv's close callback, so that a cancelled or fired
// timer is never freed while libuv still holds the handle.
class OneShot : public Cancellable {
public:
  OneShot(Loop& loop, RunLoop::Task task) : _task(std::move(task)) {
    uv_timer_init(loop.raw(), &_timer);
    _timer.data = this;
    retain();
  }

  void start(Duration delay) {
    uint64_t ms = delay.totalMicroseconds() <= 0 ? 0 : (delay.totalMicroseconds() + 999) / 1000;
    uv_timer_start(&_timer, &OneShot::fired, ms, 0);
  }

  void invalidate() override {
    if (!_pending)
      return;
    _pending = false;
    _task = nullptr;
    close();
  }
  bool valid() const override { return _pending; }

private:
  static void fired(uv_timer_t* timer) {
    auto* self = static_cast<OneShot*>(timer->data);
    AutoPtr<OneShot> protect(self);
    self->_pending = false;
    auto task = std::move(self->_task);
    self->close();
    guarded([&] { task(); });
  }

  void close() {
    uv_close(reinterpret_cast<uv_handle_t*>(&_timer),
             [](uv_handle_t* h) { static_cast<OneShot*>(h->data)->release(); });
  }

  uv_timer_t _timer{};
  RunLoop::Task _task;
  bool _pending = true;
};

}  // namespace

Handle Timer::schedule(Loop& loop, Duration delay, RunLoop::Task task) {
  auto timer = makeAuto<OneShot>(loop, std::move(task));
  timer->start(delay);
  return Handle(timer);
}

}  // namespace fn::uv

#include "foundation/uv/async.h"

#include "foundation/uv/loop.h"

namespace fn::uv {

AutoPtr<Async> Async::create(Loop& loop, std::function<void()> callback) {
  return AutoPtr<Async>(new Async(loop, std::move(callback)));
}

Async::Async(Loop& loop, std::function<void()> callback) : _callback(std::move(callback)) {
  uv_async_init(loop.raw(), &_async, [](uv_async_t* h) {
    auto* self = static_cast<Async*>(h->data);
    AutoPtr<Async> protect(self);
    if (!self->_closing && self->_callback)
      guarded([&] { self->_callback(); });
  });
  _async.data = this;
  retain();  // released by the close callback
}

void Async::send() {
  std::lock_guard lock(_mutex);
  if (!_closing)
    uv_async_send(&_async);
}

void Async::close() {
  {
    std::lock_guard lock(_mutex);
    if (_closing)
      return;
    _closing = true;
  }
  uv_close(reinterpret_cast<uv_handle_t*>(&_async), [](uv_handle_t* h) {
    auto* self = static_cast<Async*>(h->data);
    self->_callback = nullptr;
    self->release();
  });
}

}  // namespace fn::uv

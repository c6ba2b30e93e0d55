#include "foundation/uv/stream.h"

#include <type_traits>

#include "foundation/uv/loop.h"

namespace fn::uv {

namespace {
constexpr size_t MAX_SPARE_CAPACITY = 1024 * 1024;
}  // namespace

struct Stream::WriteRequest {
  uv_write_t request{};
  AutoPtr<Stream> stream;
  ByteArray bytes;
  std::vector<WriteCallback> callbacks;
};

Stream::Stream(Loop& loop, uv_stream_t* handle) : _loop(loop), _handle(handle) {
  retain();  // released by the close callback
}

void Stream::attachHandle() {
  _handle->data = this;
}

Stream::~Stream() = default;

void Stream::readStart(ReadCallback callback) {
  _onRead = std::move(callback);
  int rc = uv_read_start(
      _handle,
      [](uv_handle_t* h, size_t, uv_buf_t* buf) {
        auto* self = static_cast<Stream*>(h->data);
        // Every reader consumes its chunk inside the read callback, so the loop's one buffer
        // serves all its streams; only a read nested inside another's callback needs its own.
        ByteArray* shared = self->_loop.lendReadBuffer();
        if (!shared) {
          self->_readBuffer.resize(64 * 1024);
          shared = &self->_readBuffer;
        }
        buf->base = reinterpret_cast<char*>(shared->data());
        buf->len = shared->size();
      },
      [](uv_stream_t* h, ssize_t n, uv_buf_t const* buf) {
        auto* self = static_cast<Stream*>(h->data);
        bool own = !self->_readBuffer.empty() &&
                   buf->base == reinterpret_cast<char*>(self->_readBuffer.data());
        // The loop's buffer stays lent while the chunk is read, so a nested read cannot
        // overwrite it.
        struct Return {
          Stream* self;
          bool own;
          void const* base;
          ~Return() {
            if (own)
              ByteArray().swap(self->_readBuffer);
            else
              self->_loop.returnReadBuffer(base);
          }
        } giveBack{self, own, buf->base};
        // libuv reports 0 when a read that filled the buffer is followed by EAGAIN: nothing
        // happened, and the callback promises bytes, the end or an error.
        if (n == 0 || self->_closing || !self->_onRead)
          return;
        AutoPtr<Stream> protect(self);
        guarded([&] { self->_onRead(buf->base, n); });
      });
  if (rc < 0) {
    // Report the failure the way a failed read would be reported, but not from inside the
    // caller: deliveries are posted.
    AutoPtr<Stream> protect(this);
    _loop.post([protect, rc] {
      if (!protect->_closing && protect->_onRead)
        protect->_onRead(nullptr, rc);
    });
  }
}

void Stream::readStop() {
  if (!_closing)
    uv_read_stop(_handle);
}

void Stream::write(ByteArray const& bytes, WriteCallback done) {
  writeWith([&](ByteArray& out) { out.insert(out.end(), bytes.begin(), bytes.end()); },
            std::move(done));
}

void Stream::queued(WriteCallback done) {
  if (done)
    _pendingCallbacks.push_back(std::move(done));
  if (_pending.size() >= EARLY_WRITE_BYTES && _loop.hasParallelism() &&
      uv_stream_get_write_queue_size(_handle) == 0) {
    flush();
    return;
  }
  if (!_flushQueued) {
    _flushQueued = true;
    AutoPtr<Stream> protect(this);
    _loop.atEndOfIteration([protect] { protect->flush(); });
  }
}

void Stream::failWrite(WriteCallback done) {
  if (!done)
    return;
  _loop.post([done = std::move(done)]() mutable { done(Status("write", UV_ECANCELED)); });
}

void Stream::flush() {
  _flushQueued = false;
  if (_closing || _pending.empty())
    return;
  // With nobody waiting to hear of this batch, it goes to the kernel directly: no request, no
  // change to what the loop polls for, no completion to run. libuv refuses (UV_EAGAIN) while
  // earlier writes are still queued, so the order holds. What the kernel did not take, and any
  // error, goes the usual way below.
  if (_pendingCallbacks.empty()) {
    uv_buf_t direct = uv_buf_init(reinterpret_cast<char*>(_pending.data()),
                                  static_cast<unsigned>(_pending.size()));
    int written = uv_try_write(_handle, &direct, 1);
    if (written == static_cast<int>(_pending.size())) {
      // The buffer stays for the next batch, as a spare would, unless it is unusually large.
      _pending.clear();
      if (_pending.capacity() > MAX_SPARE_CAPACITY)
        ByteArray().swap(_pending);
      return;
    }
    if (written > 0)
      _pending.erase(_pending.begin(), _pending.begin() + written);
  }
  auto* request = new WriteRequest{};
  request->stream = AutoPtr<Stream>(this);
  request->bytes.swap(_pending);
  // The next batch goes into the buffer of an earlier write, which kept its capacity.
  _pending.swap(_spare);
  request->callbacks.swap(_pendingCallbacks);
  request->request.data = request;
  _inFlight += request->bytes.size();
  uv_buf_t buf = uv_buf_init(reinterpret_cast<char*>(request->bytes.data()),
                             static_cast<unsigned>(request->bytes.size()));
  auto completed = [](uv_write_t* r, int status) {
    std::unique_ptr<WriteRequest> request(static_cast<WriteRequest*>(r->data));
    request->stream->_inFlight -= request->bytes.size();
    for (auto& callback : request->callbacks)
      guarded([&] { callback(Status("write", status)); });
    // Batches are written every loop iteration: growing a fresh buffer for each costs a
    // string of reallocations. A buffer of an unusual size is not worth keeping.
    ByteArray& spare = request->stream->_spare;
    if (!request->stream->_closing && request->bytes.capacity() > spare.capacity() &&
        request->bytes.capacity() <= MAX_SPARE_CAPACITY) {
      request->bytes.clear();
      spare.swap(request->bytes);
    }
  };
  int rc = uv_write(&request->request, _handle, &buf, 1, completed);
  if (rc < 0) {
    // libuv did not take the request: finish it ourselves, later.
    _loop.post([request, rc] {
      std::unique_ptr<WriteRequest> owned(request);
      owned->stream->_inFlight -= owned->bytes.size();
      for (auto& callback : owned->callbacks)
        guarded([&] { callback(Status("write", rc)); });
    });
  }
}

void Stream::shutdown(WriteCallback done) {
  if (_closing) {
    failWrite(std::move(done));
    return;
  }
  // libuv sends the end after the writes it holds, so what is queued goes to it first.
  flush();
  struct Request {
    uv_shutdown_t request{};
    AutoPtr<Stream> stream;
    WriteCallback done;
  };
  auto* request = new Request{{}, AutoPtr<Stream>(this), std::move(done)};
  request->request.data = request;
  int rc = uv_shutdown(&request->request, _handle, [](uv_shutdown_t* r, int status) {
    std::unique_ptr<Request> owned(static_cast<Request*>(r->data));
    if (owned->done)
      guarded([&] { owned->done(Status("shutdown", status)); });
  });
  if (rc < 0) {
    std::unique_ptr<Request> owned(request);
    failWrite(std::move(owned->done));
  }
}

Status Stream::listen(int backlog, ConnectionCallback onConnection) {
  _onConnection = std::move(onConnection);
  return Status("listen", uv_listen(_handle, backlog, [](uv_stream_t* h, int status) {
                  auto* self = static_cast<Stream*>(h->data);
                  if (self->_closing || !self->_onConnection)
                    return;
                  AutoPtr<Stream> protect(self);
                  guarded([&] { self->_onConnection(Status("listen", status)); });
                }));
}

Status Stream::accept(Stream& client) {
  return Status("accept", uv_accept(_handle, client._handle));
}

void Stream::close() {
  if (_closing)
    return;
  // Hand what is queued to the kernel first: a last record (a release, a goodbye) written
  // just before closing must not be lost. libuv writes at once when the socket has room.
  if (!_pending.empty())
    flush();
  abort();
}

void Stream::abort() {
  if (_closing)
    return;
  _closing = true;
  // Writes handed to libuv are cancelled by the close; their buffers go with them.
  ByteArray().swap(_spare);
  // The callbacks stay until the close callback: close() is often called from inside one of
  // them, which must not be destroyed while it runs. `_closing` already stops deliveries.
  ByteArray().swap(_pending);
  auto callbacks = std::move(_pendingCallbacks);
  _pendingCallbacks.clear();
  for (auto& callback : callbacks)
    failWrite(std::move(callback));
  uv_close(reinterpret_cast<uv_handle_t*>(_handle), [](uv_handle_t* h) {
    auto* self = static_cast<Stream*>(h->data);
    // Dropping them here also breaks cycles through callbacks that hold the stream.
    self->_onRead = nullptr;
    self->_onConnection = nullptr;
    self->release();
  });
}

namespace {

// A HANDLE on Windows, where nothing asks for a descriptor.
template <typename Native>
int descriptorOf(Native fd) {
  if constexpr (std::is_integral_v<Native>)
    return static_cast<int>(fd);
  else
    return -1;
}

}  // namespace

int Stream::fileno() const {
  uv_os_fd_t fd;
  if (uv_fileno(reinterpret_cast<uv_handle_t const*>(_handle), &fd) < 0)
    return -1;
  return descriptorOf(fd);
}

}  // namespace fn::uv

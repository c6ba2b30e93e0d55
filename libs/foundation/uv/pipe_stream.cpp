#include "foundation/uv/pipe_stream.h"

#include "foundation/uv/loop.h"

namespace fn::uv {

PipeStream::PipeStream(Loop& loop) : Stream(loop, reinterpret_cast<uv_stream_t*>(&_pipe)) {
  uv_pipe_init(loop.raw(), &_pipe, 0);
  attachHandle();
}

AutoPtr<PipeStream> PipeStream::create(Loop& loop) {
  return AutoPtr<PipeStream>(new PipeStream(loop));
}

Status PipeStream::open(int fd) {
  return Status("open", uv_pipe_open(&_pipe, fd));
}

void PipeStream::connect(String const& path, std::function<void(Status)> done) {
  _onConnect = std::move(done);
  _connect.data = this;
  retain();  // until the connect callback
  uv_pipe_connect(&_connect, &_pipe, path.c_str(), [](uv_connect_t* request, int status) {
    auto* self = static_cast<PipeStream*>(request->data);
    AutoPtr<PipeStream> protect = AutoPtr<PipeStream>::adopt(self);
    auto callback = std::move(self->_onConnect);
    if (callback && !(self->closed() && status == 0))
      guarded([&] { callback(Status("connect", status)); });
  });
}

}  // namespace fn::uv

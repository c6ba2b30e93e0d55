#include "foundation/buffered_output_stream.h"

namespace fn {

BufferedOutputStream::BufferedOutputStream(OutputStream& stream, size_t size)
    : _stream(stream),
      _capacity(size > 0 ? size : 1) {
  _buffer.reserve(_capacity);
}

void BufferedOutputStream::write(void const* bytes, size_t count) {
  if (_buffer.size() + count > _capacity && !_buffer.empty()) {
    _stream.write(_buffer.data(), _buffer.size());
    _buffer.clear();
  }
  if (count >= _capacity)
    _stream.write(bytes, count);
  else
    _buffer.append(bytes, count);
}

void BufferedOutputStream::flush() {
  if (!_buffer.empty()) {
    _stream.write(_buffer.data(), _buffer.size());
    _buffer.clear();
  }
  _stream.flush();
}

void BufferedOutputStream::close() {
  flush();
  _stream.close();
}

}  // namespace fn

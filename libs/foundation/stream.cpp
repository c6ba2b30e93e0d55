#include "foundation/stream.h"

#include <algorithm>

#include "foundation/exception.h"

namespace fn {

OutputStream::~OutputStream() = default;
InputStream::~InputStream() = default;

BufferedInputStream::BufferedInputStream(InputStream& stream, size_t size)
    : _stream(stream),
      _buffer(size ? size : 1) {}

size_t BufferedInputStream::read(void* bytes, size_t count) {
  if (_at == _end) {
    if (count >= _buffer.size())
      return _stream.read(bytes, count);
    _at = 0;
    _end = _stream.read(_buffer.data(), _buffer.size());
  }
  size_t n = std::min(count, _end - _at);
  std::memcpy(bytes, _buffer.data() + _at, n);
  _at += n;
  return n;
}

bool StreamReader::readLine(String& line, size_t maxLength) {
  line.clear();
  char c = 0;
  bool any = false;
  while (_stream.read(&c, 1) == 1) {
    any = true;
    if (c == '\n') {
      if (!line.empty() && line.back() == '\r')
        line.pop_back();
      return true;
    }
    if (line.size() < maxLength)
      line.push_back(c);
  }
  return any;
}

ByteArray StreamReader::readEverything() {
  ByteArray all;
  uint8_t chunk[16384];
  while (size_t n = _stream.read(chunk, sizeof chunk))
    all.append(chunk, n);
  return all;
}

ByteArray StreamReader::readExactly(size_t count) {
  ByteArray bytes(count);
  size_t done = 0;
  while (done < count) {
    size_t n = _stream.read(bytes.data() + done, count - done);
    if (n == 0)
      throw IOException(fmt::format("Stream ended after {} of {} bytes", done, count));
    done += n;
  }
  return bytes;
}

}  // namespace fn

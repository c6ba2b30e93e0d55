#include "foundation/stream.h"

#include "foundation/exception.h"

namespace fn {

OutputStream::~OutputStream() = default;
InputStream::~InputStream() = default;

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

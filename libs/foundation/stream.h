#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "foundation/byte_array.h"
#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

class FN_EXPORT OutputStream {
public:
  virtual ~OutputStream();
  virtual void write(void const* bytes, size_t count) = 0;
  virtual void flush() {}
  virtual void close() { flush(); }
};

class FN_EXPORT InputStream {
public:
  virtual ~InputStream();
  /// Reads up to `count` bytes; returns 0 only at the end.
  virtual size_t read(void* bytes, size_t count) = 0;
};

/// Appends to a ByteArray it does not own.
class FN_EXPORT ByteArrayOutputStream : public OutputStream {
public:
  explicit ByteArrayOutputStream(ByteArray& target) : _target(target) {}
  void write(void const* bytes, size_t count) override { _target.append(bytes, count); }
  ByteArray& bytes() { return _target; }

private:
  ByteArray& _target;
};

/// Reads from memory it does not own.
class FN_EXPORT MemoryInputStream : public InputStream {
public:
  MemoryInputStream(void const* bytes, size_t count)
      : _begin(static_cast<uint8_t const*>(bytes)),
        _end(_begin + count),
        _at(_begin) {}
  explicit MemoryInputStream(ByteArray const& bytes)
      : MemoryInputStream(bytes.data(), bytes.size()) {}

  size_t read(void* bytes, size_t count) override {
    size_t n = std::min(count, remaining());
    if (n)
      std::memcpy(bytes, _at, n);
    _at += n;
    return n;
  }
  uint8_t const* current() const { return _at; }
  size_t remaining() const { return static_cast<size_t>(_end - _at); }
  void skip(size_t count) { _at += std::min(count, remaining()); }

private:
  uint8_t const* _begin;
  uint8_t const* _end;
  uint8_t const* _at;
};

/// Reads a stream it borrows in blocks of `size` bytes, for readers that take little at a
/// time.
class FN_EXPORT BufferedInputStream : public InputStream {
public:
  BufferedInputStream(InputStream& stream, size_t size);
  size_t read(void* bytes, size_t count) override;

private:
  InputStream& _stream;
  ByteArray _buffer;
  size_t _at = 0;
  size_t _end = 0;
};

/// Helpers over any InputStream.
class FN_EXPORT StreamReader {
public:
  explicit StreamReader(InputStream& stream) : _stream(stream) {}
  ByteArray readEverything();
  /// Exactly `count` bytes, or an IOException.
  ByteArray readExactly(size_t count);
  /// The next line into `line`, without its "\n" or "\r\n"; false at the end of the stream
  /// when nothing was left. Bytes of a line beyond `maxLength` are skipped, so a stream
  /// without line feeds cannot make the reader hold more than that.
  bool readLine(String& line, size_t maxLength = 1 << 20);

private:
  InputStream& _stream;
};

}  // namespace fn

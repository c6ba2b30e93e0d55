#pragma once

#include "foundation/byte_array.h"
#include "foundation/export.h"
#include "foundation/stream.h"

namespace fn {

/// Collects small writes into blocks of `size` bytes for a stream it borrows.
///
/// The destructor does not flush: a writer that gives up half-way (an exception while
/// serialising) must not have its partial output completed behind its back. Call close().
class FN_EXPORT BufferedOutputStream : public OutputStream {
public:
  BufferedOutputStream(OutputStream& stream, size_t size);

  void write(void const* bytes, size_t count) override;
  /// Writes the buffered bytes and flushes the underlying stream.
  void flush() override;
  /// Flushes, then closes the underlying stream.
  void close() override;

private:
  OutputStream& _stream;
  ByteArray _buffer;
  size_t _capacity;
};

}  // namespace fn

#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/export.h"
#include "foundation/stream.h"

namespace fn {

/// Rewrites a byte stream on its way out. It sees the bytes in whatever runs the writer
/// produces, so any state that spans runs lives in the transform.
class FN_EXPORT Transform {
public:
  virtual ~Transform();
  /// Receives the next run of bytes and writes its rewritten form to `output`.
  virtual void transform(uint8_t const* bytes, size_t count, OutputStream& output) = 0;
};

/// Passes everything written through a transform it borrows into a stream it borrows.
class FN_EXPORT TransformOutputStream : public OutputStream {
public:
  TransformOutputStream(OutputStream& stream, Transform& transform)
      : _stream(stream),
        _transform(transform) {}

  void write(void const* bytes, size_t count) override {
    _transform.transform(static_cast<uint8_t const*>(bytes), count, _stream);
  }
  void flush() override { _stream.flush(); }
  void close() override { _stream.close(); }

private:
  OutputStream& _stream;
  Transform& _transform;
};

}  // namespace fn

#pragma once

#include "core/export.h"
#include "foundation/byte_array.h"
#include "foundation/stream.h"
#include "foundation/string.h"

namespace core {

/// Bytes together with the MIME type that says what they hold. The MIME type may be empty.
class CORE_EXPORT TypedByteArray {
public:
  TypedByteArray() = default;
  /// `size` zero bytes without a MIME type.
  explicit TypedByteArray(size_t size) : _bytes(size) {}
  explicit TypedByteArray(fn::String mimeType) : _mimeType(std::move(mimeType)) {}
  TypedByteArray(fn::ByteArray bytes, fn::String mimeType)
      : _bytes(std::move(bytes)),
        _mimeType(std::move(mimeType)) {}

  fn::ByteArray const& bytes() const { return _bytes; }
  fn::ByteArray& bytes() { return _bytes; }
  fn::String const& mimeType() const { return _mimeType; }
  void setMimeType(fn::String const& mimeType) { _mimeType = mimeType; }

  /// The bytes' text, preceded by the MIME type and a blank when there is one.
  fn::String toString() const;

  /// Two MessagePack values: the MIME type as str, the bytes as bin.
  void serialize(fn::OutputStream& stream) const;
  /// RangeException "Invalid boxed type" when the values are not a string and bytes.
  static TypedByteArray deserialize(fn::InputStream& stream);

  bool operator==(TypedByteArray const&) const = default;

private:
  fn::ByteArray _bytes;
  fn::String _mimeType;
};

}  // namespace core

#pragma once

// MessagePack form of fn::Value: nil, bool, int, float64, str for text, bin for bytes, array,
// map; object values become ext values through a ValueSerializer hook (or nil without one).

#include <cstdint>
#include <memory>
#include <optional>

#include "foundation/byte_array.h"
#include "foundation/export.h"
#include "foundation/stream.h"
#include "foundation/value.h"

namespace fn::mpack {

/// Turns object values into ext values.
class FN_EXPORT ValueSerializer {
public:
  virtual ~ValueSerializer();
  /// Writes the ext content of `value` (an object value) and returns its type code, or
  /// returns nullopt, without writing, for an object it does not know (written as nil).
  virtual std::optional<int8_t> serializeObject(Value const& value, OutputStream& content) = 0;
};

/// Turns ext values back into values.
class FN_EXPORT ValueDeserializer {
public:
  virtual ~ValueDeserializer();
  virtual Value deserializeExtension(int8_t typeCode, uint8_t const* data, size_t size) = 0;
};

/// Limits against hostile input; the defaults are generous for any real record.
struct Limits {
  size_t maxDepth = 128;
};

/// Writes MessagePack piece by piece into a ByteArray, for hot paths that know their layout
/// and need not build a Value first.
/// What it writes reaches `out` at flush() or destruction.
class Writer;
class FN_EXPORT Encoder {
public:
  explicit Encoder(ByteArray& out);
  ~Encoder();
  void mapHeader(uint32_t entries);
  void integer(int64_t value);
  void unsignedInteger(uint64_t value);
  void binary(uint8_t const* bytes, size_t size);
  void value(Value const& value, ValueSerializer* hook = nullptr);
  void flush();

private:
  std::unique_ptr<Writer> _writer;
};

/// Appends the encoding of `value` to `out`.
FN_EXPORT void encode(Value const& value, ByteArray& out, ValueSerializer* hook = nullptr);

/// Decodes exactly one value spanning all `size` bytes; DataFormatException otherwise.
FN_EXPORT Value decode(uint8_t const* data,
                       size_t size,
                       ValueDeserializer* hook = nullptr,
                       Limits limits = {});

class FN_EXPORT Serializer {
public:
  explicit Serializer(OutputStream& stream, ValueSerializer* hook = nullptr)
      : _stream(stream),
        _hook(hook) {}
  void serialize(Value const& value);

private:
  OutputStream& _stream;
  ValueSerializer* _hook;
  ByteArray _buffer;
};

/// Reads consecutive values from a stream.
class FN_EXPORT Deserializer {
public:
  explicit Deserializer(InputStream& stream, ValueDeserializer* hook = nullptr, Limits limits = {})
      : _stream(stream),
        _hook(hook),
        _limits(limits) {}
  /// The next value; nullopt at the end of the input. Malformed input throws
  /// DataFormatException.
  std::optional<Value> deserialize();

private:
  InputStream& _stream;
  ValueDeserializer* _hook;
  Limits _limits;
  ByteArray _buffered;
  size_t _offset = 0;
  bool _loaded = false;
};

}  // namespace fn::mpack

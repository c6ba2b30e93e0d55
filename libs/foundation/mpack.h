#pragma once

// MessagePack form of fn::Value: nil, bool, int, float64, str for text, bin for bytes, array,
// map; object values become ext values through a ValueSerializer hook (or nil without one).

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

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
/// and need not build a Value first. Small pieces gather in a buffer of the encoder's own and
/// reach `out` in few appends, at flush() or destruction: a record is a few dozen one- and
/// two-byte pieces.
class FN_EXPORT Encoder {
public:
  explicit Encoder(ByteArray& out) : _out(out) {}
  ~Encoder() { flush(); }
  Encoder(Encoder const&) = delete;
  Encoder& operator=(Encoder const&) = delete;

  void nil() { u8(0xc0); }
  void boolean(bool b) { u8(b ? 0xc3 : 0xc2); }
  void integer(int64_t v) {
    if (v >= 0)
      return unsignedInteger(static_cast<uint64_t>(v));
    if (v >= -32)
      return u8(static_cast<uint8_t>(v));
    signedInteger(v);
  }
  void unsignedInteger(uint64_t v) {
    if (v <= 0x7f)
      return u8(static_cast<uint8_t>(v));
    largeUnsignedInteger(v);
  }
  void floating(double d);
  void string(std::string_view text) {
    size_t n = text.size();
    if (n <= 31)
      u8(static_cast<uint8_t>(0xa0 | n));
    else
      sized(0xd9, n);
    put(text.data(), n);
  }
  void binary(uint8_t const* bytes, size_t n) {
    sized(0xc4, n);
    put(bytes, n);
  }
  void arrayHeader(size_t n);
  void mapHeader(size_t n) {
    if (n <= 15)
      return u8(static_cast<uint8_t>(0x80 | n));
    largeHeader(0xde, n);
  }
  void extension(int8_t code, uint8_t const* bytes, size_t n);
  /// The whole of `value`; object values go through `hook` (nil without one).
  void value(Value const& value, ValueSerializer* hook = nullptr);

  void flush() {
    if (_n) {
      _out.append(_buffer, _n);
      _n = 0;
    }
  }

private:
  void signedInteger(int64_t v);
  void largeUnsignedInteger(uint64_t v);
  void largeHeader(uint8_t tag16, size_t n);
  // Lengths of strings, bytes and extensions: 8, 16 or 32 bits after `tag8`, with the 16-
  // and 32-bit tags following it (0xd9 0xda 0xdb, 0xc4 0xc5 0xc6, 0xc7 0xc8 0xc9).
  void sized(uint8_t tag8, size_t n);
  template <typename T>
  void tagged(uint8_t tag, T value) {
    uint8_t bytes[1 + sizeof(T)];
    bytes[0] = tag;
    for (size_t i = 0; i < sizeof(T); ++i)
      bytes[1 + i] = static_cast<uint8_t>(value >> (8 * (sizeof(T) - 1 - i)));
    put(bytes, sizeof bytes);
  }
  // Forced inline: the value encoder is recursive, and the compiler would otherwise keep
  // these one-byte writes as calls.
  [[gnu::always_inline]] void u8(uint8_t b) {
    if (_n == sizeof _buffer)
      flush();
    _buffer[_n++] = b;
  }
  [[gnu::always_inline]] void put(void const* bytes, size_t count) {
    // An empty byte array has no data pointer, and memcpy must not be given a null one.
    if (count == 0)
      return;
    if (count > sizeof _buffer - _n) {
      flush();
      if (count > sizeof _buffer) {
        _out.append(bytes, count);
        return;
      }
    }
    copyBytes(_buffer + _n, bytes, count);
    _n += count;
  }

  ByteArray& _out;
  size_t _n = 0;
  uint8_t _buffer[512];
};

/// Writes the heads of MessagePack values (integers, map headers, byte-array headers) into a
/// buffer the caller made large enough (at most 9 bytes a piece): for hot paths that gather
/// the fixed part of a record on the stack and append it at once.
class Writer {
public:
  explicit Writer(uint8_t* at) : _start(at), _at(at) {}

  size_t written() const { return static_cast<size_t>(_at - _start); }

  void unsignedInteger(uint64_t v) {
    if (v <= 0x7f)
      *_at++ = static_cast<uint8_t>(v);
    else if (v <= 0xff)
      tagged(0xcc, v, 1);
    else if (v <= 0xffff)
      tagged(0xcd, v, 2);
    else if (v <= 0xffffffff)
      tagged(0xce, v, 4);
    else
      tagged(0xcf, v, 8);
  }
  void mapHeader(size_t n) {
    if (n <= 15)
      *_at++ = static_cast<uint8_t>(0x80 | n);
    else
      n <= 0xffff ? tagged(0xde, n, 2) : tagged(0xdf, n, 4);
  }
  void binaryHeader(size_t n) {
    n <= 0xff ? tagged(0xc4, n, 1) : n <= 0xffff ? tagged(0xc5, n, 2) : tagged(0xc6, n, 4);
  }

private:
  void tagged(uint8_t tag, uint64_t v, int bytes) {
    *_at++ = tag;
    for (int i = bytes - 1; i >= 0; --i)
      *_at++ = static_cast<uint8_t>(v >> (8 * i));
  }

  uint8_t* _start;
  uint8_t* _at;
};

/// Appends the encoding of `value` to `out`.
FN_EXPORT void encode(Value const& value, ByteArray& out, ValueSerializer* hook = nullptr);

/// Decodes exactly one value spanning all `size` bytes; DataFormatException otherwise.
FN_EXPORT Value decode(uint8_t const* data,
                       size_t size,
                       ValueDeserializer* hook = nullptr,
                       Limits limits = {});
/// The same into `out`, whose storage is reused where it fits (a map keeps its room for
/// entries). After an exception `out` holds some value, not necessarily the one it had.
FN_EXPORT void decode(uint8_t const* data,
                      size_t size,
                      Value& out,
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

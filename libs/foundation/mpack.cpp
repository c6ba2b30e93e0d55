#include "foundation/mpack.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace fn::mpack {

ValueSerializer::~ValueSerializer() = default;
ValueDeserializer::~ValueDeserializer() = default;

void Encoder::signedInteger(int64_t v) {
  if (v >= INT8_MIN)
    return tagged<uint8_t>(0xd0, static_cast<uint8_t>(v));
  if (v >= INT16_MIN)
    return tagged<uint16_t>(0xd1, static_cast<uint16_t>(v));
  if (v >= INT32_MIN)
    return tagged<uint32_t>(0xd2, static_cast<uint32_t>(v));
  tagged<uint64_t>(0xd3, static_cast<uint64_t>(v));
}

void Encoder::largeUnsignedInteger(uint64_t v) {
  uint8_t bytes[9];
  Writer writer(bytes);
  writer.unsignedInteger(v);
  put(bytes, writer.written());
}

void Encoder::floating(double d) {
  tagged<uint64_t>(0xcb, std::bit_cast<uint64_t>(d));
}

void Encoder::arrayHeader(size_t n) {
  if (n <= 15)
    return u8(static_cast<uint8_t>(0x90 | n));
  largeHeader(0xdc, n);
}

// 0xdc/0xdd for arrays, 0xde/0xdf for maps: a 16-bit count, else a 32-bit one.
void Encoder::largeHeader(uint8_t tag16, size_t n) {
  n <= 0xffff ? tagged<uint16_t>(tag16, static_cast<uint16_t>(n))
              : tagged<uint32_t>(static_cast<uint8_t>(tag16 + 1), static_cast<uint32_t>(n));
}

void Encoder::sized(uint8_t tag8, size_t n) {
  if (n <= 0xff)
    tagged<uint8_t>(tag8, static_cast<uint8_t>(n));
  else if (n <= 0xffff)
    tagged<uint16_t>(static_cast<uint8_t>(tag8 + 1), static_cast<uint16_t>(n));
  else
    tagged<uint32_t>(static_cast<uint8_t>(tag8 + 2), static_cast<uint32_t>(n));
}

void Encoder::extension(int8_t code, uint8_t const* bytes, size_t n) {
  switch (n) {
    case 1:
      u8(0xd4);
      break;
    case 2:
      u8(0xd5);
      break;
    case 4:
      u8(0xd6);
      break;
    case 8:
      u8(0xd7);
      break;
    case 16:
      u8(0xd8);
      break;
    default:
      sized(0xc7, n);
      break;
  }
  u8(static_cast<uint8_t>(code));
  put(bytes, n);
}

namespace {

void pack(Encoder& writer, Value const& value, ValueSerializer* hook) {
  switch (value.type()) {
    case Value::Type::Null:
      return writer.nil();
    case Value::Type::Boolean:
      return writer.boolean(value.asBool());
    case Value::Type::Integer:
      return writer.integer(value.asInt());
    case Value::Type::UnsignedInteger:
      return writer.unsignedInteger(value.asUInt());
    case Value::Type::Double:
      return writer.floating(value.asDouble());
    case Value::Type::String:
      return writer.string(value.asString());
    case Value::Type::ByteArray:
      return writer.binary(value.asByteArray().data(), value.asByteArray().size());
    case Value::Type::Array:
      writer.arrayHeader(value.asArray().size());
      for (auto const& item : value.asArray())
        pack(writer, item, hook);
      return;
    case Value::Type::Map:
      writer.mapHeader(value.asMap().size());
      for (auto const& [key, item] : value.asMap()) {
        pack(writer, key, hook);
        pack(writer, item, hook);
      }
      return;
    case Value::Type::Object: {
      ByteArray content;
      ByteArrayOutputStream stream(content);
      std::optional<int8_t> code = hook ? hook->serializeObject(value, stream) : std::nullopt;
      if (!code)
        return writer.nil();
      return writer.extension(*code, content.data(), content.size());
    }
  }
}

// A decoder of our own: it builds every value in place (a map's entries are decoded straight
// into their slots), which matters on the hub's path where each record is decoded once.
class Reader {
public:
  Reader(uint8_t const* data, size_t size, size_t offset, ValueDeserializer* hook, Limits limits)
      : _data(data),
        _size(size),
        _at(offset),
        _hook(hook),
        _limits(limits) {}

  size_t offset() const { return _at; }

  void read(Value& out, size_t depth) {
    uint8_t b = byte();
    if (b <= 0x7f)
      out = Value(static_cast<int64_t>(b));
    else if (b >= 0xe0)
      out = Value(static_cast<int64_t>(static_cast<int8_t>(b)));
    else if (b >= 0xa0 && b <= 0xbf)
      readString(out, b & 0x1f);
    else if (b >= 0x90 && b <= 0x9f)
      readArray(out, b & 0x0f, depth);
    else if (b >= 0x80 && b <= 0x8f)
      readMap(out, b & 0x0f, depth);
    else
      readTagged(out, b, depth);
  }

private:
  void readTagged(Value& out, uint8_t b, size_t depth) {
    switch (b) {
      case 0xc0:
        out = Value();
        return;
      case 0xc2:
        out = Value(false);
        return;
      case 0xc3:
        out = Value(true);
        return;
      case 0xc4:
        readBinary(out, big<uint8_t>());
        return;
      case 0xc5:
        readBinary(out, big<uint16_t>());
        return;
      case 0xc6:
        readBinary(out, big<uint32_t>());
        return;
      case 0xc7:
        readExtension(out, big<uint8_t>());
        return;
      case 0xc8:
        readExtension(out, big<uint16_t>());
        return;
      case 0xc9:
        readExtension(out, big<uint32_t>());
        return;
      case 0xca:
        out = Value(std::bit_cast<float>(big<uint32_t>()));
        return;
      case 0xcb:
        out = Value(std::bit_cast<double>(big<uint64_t>()));
        return;
      case 0xcc:
        out = Value(big<uint8_t>());
        return;
      case 0xcd:
        out = Value(big<uint16_t>());
        return;
      case 0xce:
        out = Value(big<uint32_t>());
        return;
      case 0xcf:
        out = Value(big<uint64_t>());
        return;
      case 0xd0:
        out = Value(static_cast<int8_t>(big<uint8_t>()));
        return;
      case 0xd1:
        out = Value(static_cast<int16_t>(big<uint16_t>()));
        return;
      case 0xd2:
        out = Value(static_cast<int32_t>(big<uint32_t>()));
        return;
      case 0xd3:
        out = Value(static_cast<int64_t>(big<uint64_t>()));
        return;
      case 0xd4:
        readExtension(out, 1);
        return;
      case 0xd5:
        readExtension(out, 2);
        return;
      case 0xd6:
        readExtension(out, 4);
        return;
      case 0xd7:
        readExtension(out, 8);
        return;
      case 0xd8:
        readExtension(out, 16);
        return;
      case 0xd9:
        readString(out, big<uint8_t>());
        return;
      case 0xda:
        readString(out, big<uint16_t>());
        return;
      case 0xdb:
        readString(out, big<uint32_t>());
        return;
      case 0xdc:
        readArray(out, big<uint16_t>(), depth);
        return;
      case 0xdd:
        readArray(out, big<uint32_t>(), depth);
        return;
      case 0xde:
        readMap(out, big<uint16_t>(), depth);
        return;
      case 0xdf:
        readMap(out, big<uint32_t>(), depth);
        return;
      default:
        fail("a byte that starts no value");  // 0xc1
    }
  }

  void readString(Value& out, size_t n) {
    auto const* p = take(n);
    out.assignString(std::string_view(reinterpret_cast<char const*>(p), n));
  }

  void readBinary(Value& out, size_t n) {
    auto const* p = take(n);
    out = Value(ByteArray(p, p + n));
  }

  void readExtension(Value& out, size_t n) {
    auto code = static_cast<int8_t>(byte());
    auto const* p = take(n);
    out = _hook ? _hook->deserializeExtension(code, p, n) : Value();
  }

  void readArray(Value& out, size_t n, size_t depth) {
    enter(depth, n);
    Value::Array array(n);
    for (auto& item : array)
      read(item, depth + 1);
    out = Value(std::move(array));
  }

  void readMap(Value& out, size_t n, size_t depth) {
    enter(depth, 2 * n);
    Value::Map& map = out.assignMap();
    map.reserve(n);
    bool ordered = true;
    for (size_t i = 0; i < n; ++i) {
      auto& entry = map.appendUnordered();
      read(entry.first, depth + 1);
      read(entry.second, depth + 1);
      if (ordered && i > 0)
        ordered = Value::keyLess((map.begin() + static_cast<ptrdiff_t>(i - 1))->first, entry.first);
    }
    if (!ordered)
      map.restoreOrder();
  }

  // Every element takes at least one byte: a count beyond what is left is a lie, and is
  // refused before anything is reserved for it.
  void enter(size_t depth, size_t minimumBytes) {
    if (depth >= _limits.maxDepth)
      fail("nesting deeper than the limit");
    if (minimumBytes > _size - _at)
      fail("a container larger than the input");
  }

  uint8_t byte() { return *take(1); }

  template <typename T>
  T big() {
    auto const* p = take(sizeof(T));
    T value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
      value = static_cast<T>((value << 8) | p[i]);
    return value;
  }

  uint8_t const* take(size_t n) {
    if (n > _size - _at)
      fail("truncated input");
    auto const* p = _data + _at;
    _at += n;
    return p;
  }

  [[noreturn]] void fail(char const* what) {
    throw withDetail(DataFormatException("Malformed MessagePack"),
                     fmt::format("{} at byte {} of {}", what, _at, _size));
  }

  uint8_t const* _data;
  size_t _size;
  size_t _at;
  ValueDeserializer* _hook;
  Limits _limits;
};

// Parses one value at `offset` into `out`; advances it. Throws on malformed or truncated input.
void parseOne(uint8_t const* data,
              size_t size,
              size_t& offset,
              Value& out,
              ValueDeserializer* hook,
              Limits limits) {
  Reader reader(data, size, offset, hook, limits);
  reader.read(out, 0);
  offset = reader.offset();
}

}  // namespace

void Encoder::value(Value const& value, ValueSerializer* hook) {
  pack(*this, value, hook);
}

void encode(Value const& value, ByteArray& out, ValueSerializer* hook) {
  Encoder encoder(out);
  pack(encoder, value, hook);
}

Value decode(uint8_t const* data, size_t size, ValueDeserializer* hook, Limits limits) {
  Value value;
  decode(data, size, value, hook, limits);
  return value;
}

void decode(uint8_t const* data, size_t size, Value& out, ValueDeserializer* hook, Limits limits) {
  size_t offset = 0;
  if (size == 0)
    throw DataFormatException("Malformed MessagePack: no bytes");
  parseOne(data, size, offset, out, hook, limits);
  if (offset != size)
    throw withDetail(DataFormatException("Malformed MessagePack: trailing bytes"),
                     fmt::format("{} of {} bytes used", offset, size));
}

void Serializer::serialize(Value const& value) {
  _buffer.clear();
  encode(value, _buffer, _hook);
  _stream.write(_buffer.data(), _buffer.size());
}

std::optional<Value> Deserializer::deserialize() {
  uint8_t const* data;
  size_t size;
  auto* memory = dynamic_cast<MemoryInputStream*>(&_stream);
  if (memory) {
    data = memory->current();
    size = memory->remaining();
    _offset = 0;
  } else {
    if (!_loaded) {
      _buffered = StreamReader(_stream).readEverything();
      _loaded = true;
    }
    data = _buffered.data();
    size = _buffered.size();
  }
  if (_offset >= size)
    return std::nullopt;
  size_t before = _offset;
  Value value;
  parseOne(data, size, _offset, value, _hook, _limits);
  if (memory)
    memory->skip(_offset - before);
  return value;
}

}  // namespace fn::mpack

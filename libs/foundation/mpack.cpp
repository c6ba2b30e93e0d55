#include "foundation/mpack.h"

#include <algorithm>

#define MSGPACK_NO_BOOST
#include <msgpack.hpp>

namespace fn::mpack {

ValueSerializer::~ValueSerializer() = default;
ValueDeserializer::~ValueDeserializer() = default;

namespace {

// msgpack's packer writes through any type with write(char const*, size_t).
struct ByteArraySink {
  ByteArray& out;
  void write(char const* bytes, size_t count) { out.append(bytes, count); }
};

void pack(msgpack::packer<ByteArraySink>& packer, Value const& value, ValueSerializer* hook) {
  switch (value.type()) {
    case Value::Type::Null:
      packer.pack_nil();
      break;
    case Value::Type::Boolean:
      value.asBool() ? packer.pack_true() : packer.pack_false();
      break;
    case Value::Type::Integer:
      packer.pack_int64(value.asInt());
      break;
    case Value::Type::UnsignedInteger:
      packer.pack_uint64(value.asUInt());
      break;
    case Value::Type::Double:
      packer.pack_double(value.asDouble());
      break;
    case Value::Type::String: {
      auto const& s = value.asString();
      packer.pack_str(static_cast<uint32_t>(s.size()));
      packer.pack_str_body(s.data(), static_cast<uint32_t>(s.size()));
      break;
    }
    case Value::Type::ByteArray: {
      auto const& b = value.asByteArray();
      packer.pack_bin(static_cast<uint32_t>(b.size()));
      packer.pack_bin_body(reinterpret_cast<char const*>(b.data()),
                           static_cast<uint32_t>(b.size()));
      break;
    }
    case Value::Type::Array:
      packer.pack_array(static_cast<uint32_t>(value.asArray().size()));
      for (auto const& item : value.asArray())
        pack(packer, item, hook);
      break;
    case Value::Type::Map:
      packer.pack_map(static_cast<uint32_t>(value.asMap().size()));
      for (auto const& [key, item] : value.asMap()) {
        pack(packer, key, hook);
        pack(packer, item, hook);
      }
      break;
    case Value::Type::Object: {
      ByteArray content;
      ByteArrayOutputStream stream(content);
      std::optional<int8_t> code = hook ? hook->serializeObject(value, stream) : std::nullopt;
      if (!code) {
        packer.pack_nil();
        break;
      }
      packer.pack_ext(content.size(), *code);
      packer.pack_ext_body(reinterpret_cast<char const*>(content.data()),
                           static_cast<uint32_t>(content.size()));
      break;
    }
  }
}

// Builds values straight from msgpack's parser events, without msgpack's object zone.
class Builder : public msgpack::null_visitor {
public:
  Builder(ValueDeserializer* hook, Limits limits, size_t inputSize)
      : _hook(hook),
        _limits(limits),
        _inputSize(inputSize) {}

  Value take() { return std::move(_root); }
  bool failed() const { return _failed; }

  bool visit_nil() { return put(Value()); }
  bool visit_boolean(bool v) { return put(Value(v)); }
  bool visit_positive_integer(uint64_t v) { return put(Value(v)); }
  bool visit_negative_integer(int64_t v) { return put(Value(v)); }
  bool visit_float32(float v) { return put(Value(v)); }
  bool visit_float64(double v) { return put(Value(v)); }
  bool visit_str(char const* v, uint32_t size) { return put(Value(std::string_view(v, size))); }
  bool visit_bin(char const* v, uint32_t size) { return put(Value(ByteArray(v, v + size))); }
  bool visit_ext(char const* v, uint32_t size) {
    // v[0] is the type code, the content follows.
    if (size == 0)
      return fail();
    auto code = static_cast<int8_t>(v[0]);
    auto const* content = reinterpret_cast<uint8_t const*>(v + 1);
    return put(_hook ? _hook->deserializeExtension(code, content, size - 1) : Value());
  }
  bool start_array(uint32_t count) {
    Value::Array array;
    // Every element takes at least one byte, so the input bounds what is worth reserving; the
    // fixed cap keeps a large frame of nested headers that all claim 4G elements from
    // reserving input size times element size at every level. Growth covers the rest.
    array.reserve(std::min<size_t>({count, _inputSize, MAX_RESERVE}));
    return open(Value(std::move(array)));
  }
  bool end_array_item() { return true; }
  bool end_array() { return close(); }
  bool start_map(uint32_t count) {
    Value::Map map;
    map.reserve(std::min<size_t>({count, _inputSize / 2, MAX_RESERVE}));
    return open(Value(std::move(map)));
  }
  bool start_map_key() {
    _stack.back().expectKey = true;
    return true;
  }
  bool start_map_value() {
    _stack.back().expectKey = false;
    return true;
  }
  bool end_map() { return close(); }
  void parse_error(size_t, size_t) { _failed = true; }
  void insufficient_bytes(size_t, size_t) { _failed = true; }

private:
  static constexpr size_t MAX_RESERVE = 1024;

  struct Frame {
    Value container;
    Value key;
    bool expectKey = false;
  };

  bool fail() {
    _failed = true;
    return false;
  }

  bool put(Value value) {
    if (_stack.empty()) {
      _root = std::move(value);
      return true;
    }
    Frame& top = _stack.back();
    if (top.container.isArray()) {
      top.container.asArray().push_back(std::move(value));
    } else if (top.expectKey) {
      top.key = std::move(value);
    } else {
      top.container.asMap().insertOrAssign(std::move(top.key), std::move(value));
      top.key = Value();
    }
    return true;
  }

  bool open(Value container) {
    if (_stack.size() >= _limits.maxDepth)
      return fail();
    _stack.push_back(Frame{std::move(container), Value(), false});
    return true;
  }

  bool close() {
    Value done = std::move(_stack.back().container);
    _stack.pop_back();
    return put(std::move(done));
  }

  ValueDeserializer* _hook;
  Limits _limits;
  size_t _inputSize;
  std::vector<Frame> _stack;
  Value _root;
  bool _failed = false;
};

// Parses one value at `offset`; advances it. Throws on malformed or truncated input.
Value parseOne(uint8_t const* data,
               size_t size,
               size_t& offset,
               ValueDeserializer* hook,
               Limits limits) {
  Builder builder(hook, limits, size - offset);
  bool ok = false;
  try {
    ok = msgpack::parse(reinterpret_cast<char const*>(data), size, offset, builder);
  } catch (std::exception const& e) {
    throw withDetail(DataFormatException("Malformed MessagePack"), String(e.what()));
  }
  if (!ok || builder.failed())
    throw withDetail(DataFormatException("Malformed MessagePack"),
                     fmt::format("at byte {} of {}", offset, size));
  return builder.take();
}

}  // namespace

void encode(Value const& value, ByteArray& out, ValueSerializer* hook) {
  ByteArraySink sink{out};
  msgpack::packer<ByteArraySink> packer(sink);
  pack(packer, value, hook);
}

Value decode(uint8_t const* data, size_t size, ValueDeserializer* hook, Limits limits) {
  size_t offset = 0;
  if (size == 0)
    throw DataFormatException("Malformed MessagePack: no bytes");
  Value value = parseOne(data, size, offset, hook, limits);
  if (offset != size)
    throw withDetail(DataFormatException("Malformed MessagePack: trailing bytes"),
                     fmt::format("{} of {} bytes used", offset, size));
  return value;
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
  Value value = parseOne(data, size, _offset, _hook, _limits);
  if (memory)
    memory->skip(_offset - before);
  return value;
}

}  // namespace fn::mpack

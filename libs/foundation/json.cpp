#include "foundation/json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "foundation/exception.h"

namespace fn::json {

ValueSerializer::~ValueSerializer() = default;
ValueDeserializer::~ValueDeserializer() = default;

namespace {

using Json = nlohmann::json;

Json toJson(Value const& value, ValueSerializer* hook);

Json toJsonPlain(Value const& value, ValueSerializer* hook) {
  switch (value.type()) {
    case Value::Type::Null:
      return nullptr;
    case Value::Type::Boolean:
      return value.asBool();
    case Value::Type::Integer:
      return value.asInt();
    case Value::Type::UnsignedInteger:
      return value.asUInt();
    case Value::Type::Double:
      return value.asDouble();
    case Value::Type::String:
      return static_cast<std::string const&>(value.asString());
    case Value::Type::Array: {
      Json array = Json::array();
      array.get_ref<Json::array_t&>().reserve(value.asArray().size());
      for (auto const& item : value.asArray())
        array.push_back(toJson(item, hook));
      return array;
    }
    case Value::Type::Map: {
      Json object = Json::object();
      auto& members = object.get_ref<Json::object_t&>();
      for (auto const& [key, item] : value.asMap()) {
        if (!key.isString())
          throw withDetail(DataFormatException("JSON object keys must be strings"),
                           key.detailInfo());
        // Value maps are sorted by the same byte order as the JSON object's keys.
        members.emplace_hint(members.end(), key.asString(), toJson(item, hook));
      }
      return object;
    }
    case Value::Type::Object:
      if (!value.asObject())
        return nullptr;
      [[fallthrough]];
    case Value::Type::ByteArray:
      break;
  }
  throw withDetail(DataFormatException("Unsupported value type"), value.toString());
}

Json toJson(Value const& value, ValueSerializer* hook) {
  if (hook && hook->canSerialize(value))
    return toJsonPlain(hook->serializeValue(value), hook);
  return toJsonPlain(value, hook);
}

// Builds values straight from the parser's events, with an explicit stack instead of
// recursion.
class Builder {
public:
  explicit Builder(ValueDeserializer* hook) : _hook(hook) {}

  Value take() { return std::move(_root); }
  String const& error() const { return _error; }

  bool null() { return put(Value()); }
  bool boolean(bool v) { return put(Value(v)); }
  bool number_integer(Json::number_integer_t v) { return put(Value(v)); }
  bool number_unsigned(Json::number_unsigned_t v) { return put(Value(v)); }
  bool number_float(Json::number_float_t v, Json::string_t const&) { return put(Value(v)); }
  bool string(Json::string_t& v) { return put(Value(String(std::move(v)))); }
  bool binary(Json::binary_t& v) { return put(Value(ByteArray(v.begin(), v.end()))); }
  bool start_object(size_t) { return open(Value(Value::Map())); }
  bool key(Json::string_t& k) {
    _stack.back().key = String(std::move(k));
    return true;
  }
  bool end_object() { return close(); }
  bool start_array(size_t) { return open(Value(Value::Array())); }
  bool end_array() { return close(); }
  bool parse_error(size_t, std::string const&, nlohmann::detail::exception const& e) {
    _error = e.what();
    return false;
  }

private:
  struct Frame {
    Value container;
    // An object's members are collected in file order and sorted once at its end: inserting
    // each into the sorted map would cost quadratic time for a large object in random order.
    std::vector<ValueMap::Entry> members;
    String key;
  };

  bool put(Value value) {
    if (_hook)
      value = _hook->deserializeValue(std::move(value));
    if (_stack.empty()) {
      _root = std::move(value);
      return true;
    }
    Frame& top = _stack.back();
    if (top.container.isArray())
      top.container.asArray().push_back(std::move(value));
    else
      top.members.emplace_back(Value(std::move(top.key)), std::move(value));
    return true;
  }

  bool open(Value container) {
    if (_stack.size() >= MAX_DEPTH)
      throw withDetail(DataFormatException("JSON nested too deeply"),
                       fmt::format("more than {} levels", MAX_DEPTH));
    _stack.push_back(Frame{std::move(container), {}, {}});
    return true;
  }

  bool close() {
    Frame& top = _stack.back();
    if (top.container.isMap()) {
      auto& members = top.members;
      std::stable_sort(members.begin(), members.end(),
                       [](auto const& a, auto const& b) { return a.first < b.first; });
      auto& map = top.container.asMap();
      map.reserve(members.size());
      // A repeated name keeps its last value, as later text overrides earlier text.
      for (size_t i = 0; i < members.size(); ++i) {
        if (i + 1 < members.size() && members[i + 1].first == members[i].first)
          continue;
        map.insertOrAssign(std::move(members[i].first), std::move(members[i].second));
      }
    }
    Value done = std::move(top.container);
    _stack.pop_back();
    return put(std::move(done));
  }

  ValueDeserializer* _hook;
  std::vector<Frame> _stack;
  Value _root;
  String _error;
};

void writeWithCrLf(std::string_view text, OutputStream& stream) {
  // nlohmann's dump escapes line feeds inside strings, so every raw one is a line break.
  size_t start = 0;
  for (size_t at = text.find('\n'); at != std::string_view::npos; at = text.find('\n', start)) {
    stream.write(text.data() + start, at - start);
    stream.write("\r\n", 2);
    start = at + 1;
  }
  stream.write(text.data() + start, text.size() - start);
}

DataFormatException malformed(String detail, String const& path) {
  auto error = withDetail(DataFormatException("Malformed JSON"), std::move(detail));
  if (!path.empty())
    error.info().path = path;
  return error;
}

}  // namespace

void serialize(Value const& value, OutputStream& stream, bool pretty, ValueSerializer* serializer) {
  std::string text;
  try {
    Json json = toJson(value, serializer);
    text = pretty ? json.dump(1, '\t') : json.dump();
  } catch (Json::exception const& e) {
    throw withDetail(DataFormatException("Value cannot be written as JSON"), String(e.what()));
  }
  if (pretty)
    writeWithCrLf(text, stream);
  else
    stream.write(text.data(), text.size());
}

Value deserialize(std::string_view text, ValueDeserializer* deserializer, String const& path) {
  Builder builder(deserializer);
  bool ok = false;
  try {
    ok = Json::sax_parse(text.data(), text.data() + text.size(), &builder);
  } catch (Exception& e) {
    if (!path.empty() && !e.info().path)
      e.info().path = path;
    throw;
  } catch (Json::exception const& e) {
    throw malformed(e.what(), path);
  }
  if (!ok)
    throw malformed(builder.error(), path);
  return builder.take();
}

}  // namespace fn::json

#include "foundation/value.h"

#include <algorithm>
#include <cmath>

namespace fn {

Value const Value::NIL;

namespace {

struct KeyLess {
  bool operator()(ValueMap::Entry const& entry, Value const& key) const {
    return Value::keyLess(entry.first, key);
  }
};

void appendQuoted(String& out, std::string_view text) {
  out.push_back('"');
  for (char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20)
          out += fmt::format("\\u{:04x}", c);
        else
          out.push_back(c);
    }
  }
  out.push_back('"');
}

void render(String& out, Value const& v) {
  switch (v.type()) {
    case Value::Type::Null:
      out += "null";
      break;
    case Value::Type::Boolean:
      out += v.asBool() ? "true" : "false";
      break;
    case Value::Type::Integer:
      out += fmt::format("{}", v.asInt());
      break;
    case Value::Type::UnsignedInteger:
      out += fmt::format("{}", v.asUInt());
      break;
    case Value::Type::Double:
      out += fmt::format("{}", v.asDouble());
      break;
    case Value::Type::String:
      appendQuoted(out, v.asString());
      break;
    case Value::Type::ByteArray:
      out += v.asByteArray().toString();
      break;
    case Value::Type::Array: {
      out.push_back('[');
      bool first = true;
      for (auto const& item : v.asArray()) {
        out += first ? "" : ", ";
        first = false;
        render(out, item);
      }
      out.push_back(']');
      break;
    }
    case Value::Type::Map: {
      out.push_back('{');
      bool first = true;
      for (auto const& [key, item] : v.asMap()) {
        out += first ? "" : ", ";
        first = false;
        if (key.isString())
          appendQuoted(out, key.asString());
        else
          render(out, key);
        out += ": ";
        render(out, item);
      }
      out.push_back('}');
      break;
    }
    case Value::Type::Object: {
      auto const& object = v.asObject();
      out += object ? object->toString() : String("null object");
      break;
    }
  }
}

}  // namespace

ValueMap::ValueMap(std::initializer_list<Entry> entries) {
  _entries.reserve(entries.size());
  for (auto const& entry : entries)
    insertOrAssign(entry.first, entry.second);
}

ValueMap::iterator ValueMap::find(Value const& key) {
  auto at = std::lower_bound(_entries.begin(), _entries.end(), key, KeyLess());
  return at != _entries.end() && at->first == key ? at : _entries.end();
}

ValueMap::const_iterator ValueMap::find(Value const& key) const {
  auto at = std::lower_bound(_entries.begin(), _entries.end(), key, KeyLess());
  return at != _entries.end() && at->first == key ? at : _entries.end();
}

Value& ValueMap::operator[](Value const& key) {
  // Records are usually built and decoded in ascending key order: append in that case.
  if (_entries.empty() || Value::keyLess(_entries.back().first, key))
    return _entries.emplace_back(key, Value()).second;
  auto at = std::lower_bound(_entries.begin(), _entries.end(), key, KeyLess());
  if (at != _entries.end() && at->first == key)
    return at->second;
  return _entries.emplace(at, key, Value())->second;
}

void ValueMap::insertOrAssign(Value key, Value value) {
  if (_entries.empty() || Value::keyLess(_entries.back().first, key)) {
    _entries.emplace_back(std::move(key), std::move(value));
    return;
  }
  auto at = std::lower_bound(_entries.begin(), _entries.end(), key, KeyLess());
  if (at != _entries.end() && at->first == key)
    at->second = std::move(value);
  else
    _entries.emplace(at, std::move(key), std::move(value));
}

size_t ValueMap::erase(Value const& key) {
  auto at = find(key);
  if (at == _entries.end())
    return 0;
  _entries.erase(at);
  return 1;
}

void ValueMap::restoreOrder() {
  std::stable_sort(_entries.begin(), _entries.end(),
                   [](Entry const& a, Entry const& b) { return Value::keyLess(a.first, b.first); });
  // Of a run of equal keys keep the last, which the stable sort left last.
  std::vector<Entry> unique;
  unique.reserve(_entries.size());
  for (auto& entry : _entries) {
    if (!unique.empty() && unique.back().first == entry.first)
      unique.back() = std::move(entry);
    else
      unique.push_back(std::move(entry));
  }
  _entries.swap(unique);
}

bool ValueMap::operator==(ValueMap const& other) const {
  return _entries == other._entries;
}

Value::Value(Array v) : _type(Type::Array) {
  new (&_s.array) Array(std::move(v));
}

Value::Value(Map v) : _type(Type::Map) {
  new (&_s.map) Map(std::move(v));
}

void Value::destroy() noexcept {
  switch (_type) {
    case Type::String:
      _s.string.~String();
      break;
    case Type::ByteArray:
      _s.bytes.~ByteArray();
      break;
    case Type::Array:
      _s.array.~Array();
      break;
    case Type::Map:
      _s.map.~Map();
      break;
    case Type::Object:
      _s.object.~AutoPtr();
      break;
    default:
      break;
  }
}

void Value::copyFrom(Value const& other) {
  switch (other._type) {
    case Type::String:
      new (&_s.string) String(other._s.string);
      break;
    case Type::ByteArray:
      new (&_s.bytes) ByteArray(other._s.bytes);
      break;
    case Type::Array:
      new (&_s.array) Array(other._s.array);
      break;
    case Type::Map:
      new (&_s.map) Map(other._s.map);
      break;
    case Type::Object:
      new (&_s.object) AutoPtr<RefCountedObject>(other._s.object);
      break;
    default:
      _s.u = other._s.u;
      break;
  }
}

void Value::moveFrom(Value&& other) noexcept {
  switch (other._type) {
    case Type::String:
      new (&_s.string) String(std::move(other._s.string));
      break;
    case Type::ByteArray:
      new (&_s.bytes) ByteArray(std::move(other._s.bytes));
      break;
    case Type::Array:
      new (&_s.array) Array(std::move(other._s.array));
      break;
    case Type::Map:
      new (&_s.map) Map(std::move(other._s.map));
      break;
    case Type::Object:
      new (&_s.object) AutoPtr<RefCountedObject>(std::move(other._s.object));
      break;
    default:
      _s.u = other._s.u;
      break;
  }
}

Value const& Value::throwNoSuchKey(Value const& key) const {
  if (_type != Type::Map)
    throwWrongType(Type::Map);
  throw withDetail(RangeException("No such key"), key.toString());
}

int64_t Value::convertToInt() const {
  if (_type == Type::Integer)
    return _s.i;
  // Only values above INT64_MAX are held unsigned: none of them fits.
  if (_type == Type::UnsignedInteger)
    throwOutOfRange();
  if (double const* d = _type == Type::Double ? &_s.d : nullptr; d && std::isfinite(*d)) {
    // Converting a double outside the target range is undefined, not merely inexact.
    if (*d < -0x1p63 || *d >= 0x1p63)
      throwOutOfRange();
    return static_cast<int64_t>(*d);
  }
  throwWrongType(Type::Integer);
}

uint64_t Value::convertToUInt() const {
  if (_type == Type::UnsignedInteger)
    return _s.u;
  if (double const* d = _type == Type::Double ? &_s.d : nullptr;
      d && std::isfinite(*d) && *d >= 0x1p63) {
    if (*d >= 0x1p64)
      throwOutOfRange();
    return static_cast<uint64_t>(*d);
  }
  int64_t i = asInt();
  if (i < 0)
    throwOutOfRange();
  return static_cast<uint64_t>(i);
}

double Value::asDouble() const {
  if (_type == Type::Double)
    return _s.d;
  if (_type == Type::Integer)
    return static_cast<double>(_s.i);
  if (_type == Type::UnsignedInteger)
    return static_cast<double>(_s.u);
  throwWrongType(Type::Double);
}

AutoPtr<RefCountedObject> const& Value::asObject() const {
  if (_type == Type::Object)
    return _s.object;
  throwWrongType(Type::Object);
}

Value const& Value::at(Value const& key) const {
  auto const& map = asMap();
  auto found = map.find(key);
  if (found == map.end())
    throw withDetail(RangeException("No such key"), key.toString());
  return found->second;
}

Value const& Value::get(Value const& key, Value const& fallback) const {
  auto const* map = _type == Type::Map ? &_s.map : nullptr;
  if (!map)
    return fallback;
  auto found = map->find(key);
  return found == map->end() ? fallback : found->second;
}

bool Value::contains(Value const& key) const {
  auto const* map = _type == Type::Map ? &_s.map : nullptr;
  return map && map->contains(key);
}

Value& Value::operator[](Value const& key) {
  if (isNull())
    *this = Value(Map());
  return asMap()[key];
}

size_t Value::erase(Value const& key) {
  auto* map = _type == Type::Map ? &_s.map : nullptr;
  return map ? map->erase(key) : 0;
}

Value const& Value::element(size_t index) const {
  auto const& array = asArray();
  if (index >= array.size())
    throw withDetail(RangeException("Index out of range"), String::number(index));
  return array[index];
}

void Value::append(Value item) {
  if (isNull())
    *this = Value(Array());
  asArray().push_back(std::move(item));
}

size_t Value::size() const {
  if (_type == Type::Array)
    return _s.array.size();
  if (_type == Type::Map)
    return _s.map.size();
  return 0;
}

Value& Value::mapForPath(std::string_view path) {
  Value* current = this;
  for (auto const& name : String(path).split(".")) {
    if (!current->isMap())
      *current = Value(Map());
    current = &(*current)[Value(name)];
  }
  if (!current->isMap())
    *current = Value(Map());
  return *current;
}

Value const& Value::valueForPathIfExists(std::string_view path) const {
  Value const* current = this;
  for (auto const& name : String(path).split(".")) {
    if (!current->contains(Value(name)))
      return NIL;
    current = &current->at(Value(name));
  }
  return *current;
}

String Value::toString() const {
  String out;
  render(out, *this);
  return out;
}

String Value::detailInfo() const {
  return String(fmt::format("{}: {}", typeName(type()), toString()));
}

std::string_view Value::typeName(Type type) {
  static constexpr std::string_view names[] = {"null",   "boolean", "integer", "unsigned integer",
                                               "double", "string",  "bytes",   "array",
                                               "map",    "object"};
  return names[static_cast<size_t>(type)];
}

void Value::throwWrongType(Type expected) const {
  throw withDetail(RangeException(fmt::format("Expected a value of type {}", typeName(expected))),
                   detailInfo());
}

void Value::throwOutOfRange() const {
  throw withDetail(RangeException("Integer out of range"), detailInfo());
}

bool operator==(Value const& a, Value const& b) {
  // Equality follows the ordering, so that a NaN key finds itself in a map.
  return (a <=> b) == 0;
}

std::strong_ordering operator<=>(Value const& a, Value const& b) {
  if (a._type != b._type)
    return a._type <=> b._type;
  switch (a.type()) {
    case Value::Type::Null:
      return std::strong_ordering::equal;
    case Value::Type::Boolean:
      return a.asBool() <=> b.asBool();
    case Value::Type::Integer:
      return a.asInt() <=> b.asInt();
    case Value::Type::UnsignedInteger:
      return a.asUInt() <=> b.asUInt();
    case Value::Type::Double: {
      // A total order, so that NaN keys cannot break a map.
      double x = a.asDouble(), y = b.asDouble();
      if (std::isnan(x) || std::isnan(y))
        return std::isnan(x) <=> std::isnan(y);
      return x < y ? std::strong_ordering::less
                   : (x > y ? std::strong_ordering::greater : std::strong_ordering::equal);
    }
    case Value::Type::String:
      return a.asString().compare(b.asString()) <=> 0;
    case Value::Type::ByteArray:
      return a.asByteArray() <=> b.asByteArray();
    case Value::Type::Array: {
      auto const& x = a.asArray();
      auto const& y = b.asArray();
      return std::lexicographical_compare_three_way(x.begin(), x.end(), y.begin(), y.end());
    }
    case Value::Type::Map: {
      auto const& x = a.asMap();
      auto const& y = b.asMap();
      for (auto i = x.begin(), j = y.begin();; ++i, ++j) {
        if (i == x.end() || j == y.end()) {
          if (i == x.end() && j == y.end())
            return std::strong_ordering::equal;
          return i == x.end() ? std::strong_ordering::less : std::strong_ordering::greater;
        }
        if (auto c = i->first <=> j->first; c != 0)
          return c;
        if (auto c = i->second <=> j->second; c != 0)
          return c;
      }
    }
    case Value::Type::Object:
      return a.asObject() <=> b.asObject();
  }
  return std::strong_ordering::equal;
}

}  // namespace fn

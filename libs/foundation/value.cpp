#include "foundation/value.h"

#include <algorithm>
#include <cmath>

namespace fn {

Value const Value::NIL;

namespace {

struct KeyLess {
  bool operator()(ValueMap::Entry const& entry, Value const& key) const {
    return entry.first < key;
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
  if (_entries.empty() || _entries.back().first < key)
    return _entries.emplace_back(key, Value()).second;
  auto at = std::lower_bound(_entries.begin(), _entries.end(), key, KeyLess());
  if (at != _entries.end() && at->first == key)
    return at->second;
  return _entries.emplace(at, key, Value())->second;
}

void ValueMap::insertOrAssign(Value key, Value value) {
  if (_entries.empty() || _entries.back().first < key) {
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

bool ValueMap::operator==(ValueMap const& other) const {
  return _entries == other._entries;
}

bool Value::asBool() const {
  if (auto const* b = std::get_if<bool>(&_v))
    return *b;
  throwWrongType(Type::Boolean);
}

int64_t Value::asInt() const {
  if (auto const* i = std::get_if<int64_t>(&_v))
    return *i;
  // Only values above INT64_MAX are held unsigned: none of them fits.
  if (std::holds_alternative<uint64_t>(_v))
    throwOutOfRange();
  if (auto const* d = std::get_if<double>(&_v); d && std::isfinite(*d)) {
    // Converting a double outside the target range is undefined, not merely inexact.
    if (*d < -0x1p63 || *d >= 0x1p63)
      throwOutOfRange();
    return static_cast<int64_t>(*d);
  }
  throwWrongType(Type::Integer);
}

uint64_t Value::asUInt() const {
  if (auto const* u = std::get_if<uint64_t>(&_v))
    return *u;
  if (auto const* d = std::get_if<double>(&_v); d && std::isfinite(*d) && *d >= 0x1p63) {
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
  if (auto const* d = std::get_if<double>(&_v))
    return *d;
  if (auto const* i = std::get_if<int64_t>(&_v))
    return static_cast<double>(*i);
  if (auto const* u = std::get_if<uint64_t>(&_v))
    return static_cast<double>(*u);
  throwWrongType(Type::Double);
}

String const& Value::asString() const {
  if (auto const* s = std::get_if<String>(&_v))
    return *s;
  throwWrongType(Type::String);
}

ByteArray const& Value::asByteArray() const {
  if (auto const* b = std::get_if<ByteArray>(&_v))
    return *b;
  throwWrongType(Type::ByteArray);
}

ByteArray& Value::asByteArray() {
  if (auto* b = std::get_if<ByteArray>(&_v))
    return *b;
  throwWrongType(Type::ByteArray);
}

Value::Array const& Value::asArray() const {
  if (auto const* a = std::get_if<Array>(&_v))
    return *a;
  throwWrongType(Type::Array);
}

Value::Array& Value::asArray() {
  if (auto* a = std::get_if<Array>(&_v))
    return *a;
  throwWrongType(Type::Array);
}

Value::Map const& Value::asMap() const {
  if (auto const* m = std::get_if<Map>(&_v))
    return *m;
  throwWrongType(Type::Map);
}

Value::Map& Value::asMap() {
  if (auto* m = std::get_if<Map>(&_v))
    return *m;
  throwWrongType(Type::Map);
}

AutoPtr<RefCountedObject> const& Value::asObject() const {
  if (auto const* o = std::get_if<AutoPtr<RefCountedObject>>(&_v))
    return *o;
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
  auto const* map = std::get_if<Map>(&_v);
  if (!map)
    return fallback;
  auto found = map->find(key);
  return found == map->end() ? fallback : found->second;
}

bool Value::contains(Value const& key) const {
  auto const* map = std::get_if<Map>(&_v);
  return map && map->contains(key);
}

Value& Value::operator[](Value const& key) {
  if (isNull())
    _v = Map();
  return asMap()[key];
}

size_t Value::erase(Value const& key) {
  auto* map = std::get_if<Map>(&_v);
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
    _v = Array();
  asArray().push_back(std::move(item));
}

size_t Value::size() const {
  if (auto const* a = std::get_if<Array>(&_v))
    return a->size();
  if (auto const* m = std::get_if<Map>(&_v))
    return m->size();
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
  if (a._v.index() != b._v.index())
    return a._v.index() <=> b._v.index();
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

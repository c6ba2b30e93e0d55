#pragma once

// fn::Value: the dynamic value that records, payloads, preferences and bus messages are
// made of. Kinds: null, boolean, integer, floating point, string, byte array, array, map and
// object (an AutoPtr to any fn::Object, used for object references and boxed value types).
//
// Integers are kept as signed 64-bit whenever they fit, so 1, 1u and a decoded positive 1 are
// the same value and the same map key; only values above INT64_MAX are held unsigned.
// Maps are ordered by key (null < boolean < numbers < string < bytes < array < map < object)
// and stored as a sorted vector, which suits the small maps records are made of.

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/byte_array.h"
#include "foundation/exception.h"
#include "foundation/export.h"
#include "foundation/object.h"
#include "foundation/string.h"

namespace fn {

class Value;

template <typename T>
concept IntegerNotBool = std::is_integral_v<T> && !std::is_same_v<T, bool>;
template <typename T>
concept RefCounted = std::is_base_of_v<RefCountedObject, T>;

class FN_EXPORT ValueMap {
public:
  using Entry = std::pair<Value, Value>;
  using iterator = std::vector<Entry>::iterator;
  using const_iterator = std::vector<Entry>::const_iterator;

  ValueMap() = default;
  ValueMap(std::initializer_list<Entry> entries);

  // Defined after Value, which must be complete first.
  size_t size() const;
  bool empty() const;
  iterator begin();
  iterator end();
  const_iterator begin() const;
  const_iterator end() const;

  iterator find(Value const& key);
  const_iterator find(Value const& key) const;
  const_iterator find(int64_t key) const;
  const_iterator find(std::string_view key) const;
  bool contains(Value const& key) const;
  /// The value under `key`, inserted as null when absent.
  Value& operator[](Value const& key);
  void insertOrAssign(Value key, Value value);
  size_t erase(Value const& key);
  iterator erase(const_iterator at);
  void clear();
  void reserve(size_t n);
  size_t capacity() const;

  bool operator==(ValueMap const& other) const;

  /// For decoders: appends an empty entry wherever its key falls; restoreOrder() must follow
  /// unless the keys were appended in ascending order.
  Entry& appendUnordered();
  /// Sorts by key; of equal keys the last one stays, as if each had been assigned in turn.
  void restoreOrder();

private:
  std::vector<Entry> _entries;
};

class FN_EXPORT Value {
public:
  enum class Type : uint8_t {
    Null,
    Boolean,
    Integer,
    UnsignedInteger,
    Double,
    String,
    ByteArray,
    Array,
    Map,
    Object,
  };
  using Array = std::vector<Value>;
  using Map = ValueMap;

  static Value const NIL;

  Value() { _s.u = 0; }
  Value(std::nullptr_t) : Value() {}
  Value(bool v) : _type(Type::Boolean) { _s.b = v; }
  template <IntegerNotBool T>
  Value(T v) : _type(Type::Integer) {
    if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(int64_t)) {
      if (v > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        _type = Type::UnsignedInteger;
        _s.u = static_cast<uint64_t>(v);
        return;
      }
    }
    _s.i = static_cast<int64_t>(v);
  }
  Value(double v) : _type(Type::Double) { _s.d = v; }
  Value(float v) : Value(static_cast<double>(v)) {}
  Value(char const* v) : Value(fn::String(v)) {}
  Value(std::string_view v) : Value(fn::String(v)) {}
  Value(std::string const& v) : Value(fn::String(v)) {}
  Value(fn::String v) : _type(Type::String) { new (&_s.string) fn::String(std::move(v)); }
  Value(fn::ByteArray v) : _type(Type::ByteArray) { new (&_s.bytes) fn::ByteArray(std::move(v)); }
  Value(Array v);
  Value(Map v);
  template <RefCounted T>
  Value(AutoPtr<T> object) : _type(Type::Object) {
    new (&_s.object) AutoPtr<RefCountedObject>(std::move(object));
  }

  Value(Value const& other) : _type(other._type) {
    if (isScalar(_type))
      _s.u = other._s.u;
    else
      copyFrom(other);
  }
  Value(Value&& other) noexcept : _type(other._type) {
    if (isScalar(_type))
      _s.u = other._s.u;
    else
      moveFrom(std::move(other));
  }
  Value& operator=(Value const& other) {
    if (this != &other) {
      Value copy(other);
      *this = std::move(copy);
    }
    return *this;
  }
  Value& operator=(Value&& other) noexcept {
    if (this != &other) {
      reset();
      _type = other._type;
      if (isScalar(_type))
        _s.u = other._s.u;
      else
        moveFrom(std::move(other));
    }
    return *this;
  }
  ~Value() { reset(); }

  static Value array(std::initializer_list<Value> items = {}) { return Value(Array(items)); }
  static Value map(std::initializer_list<ValueMap::Entry> entries = {}) {
    return Value(Map(entries));
  }
  /// Boxes a plain value type (a fraction, a timestamp) as an object value.
  template <typename T>
  static Value box(T value) {
    return Value(makeAuto<Boxed<T>>(std::move(value)));
  }

  Type type() const { return _type; }
  bool is(Type t) const { return type() == t; }
  bool isNull() const { return is(Type::Null); }
  bool isBool() const { return is(Type::Boolean); }
  bool isInteger() const { return is(Type::Integer) || is(Type::UnsignedInteger); }
  bool isNumber() const { return isInteger() || is(Type::Double); }
  bool isString() const { return is(Type::String); }
  bool isByteArray() const { return is(Type::ByteArray); }
  bool isArray() const { return is(Type::Array); }
  bool isMap() const { return is(Type::Map); }
  bool isObject() const { return is(Type::Object); }

  // Accessors throw RangeException when the value has another kind. The value of the kind
  // asked for is returned inline: encoders and record readers ask for them at every value.
  bool asBool() const {
    return _type == Type::Boolean ? _s.b : (throwWrongType(Type::Boolean), false);
  }
  int64_t asInt() const { return _type == Type::Integer ? _s.i : convertToInt(); }
  uint64_t asUInt() const {
    return _type == Type::Integer && _s.i >= 0 ? static_cast<uint64_t>(_s.i) : convertToUInt();
  }
  double asDouble() const;
  fn::String const& asString() const { return held<Type::String>(_s.string); }
  fn::ByteArray const& asByteArray() const { return held<Type::ByteArray>(_s.bytes); }
  fn::ByteArray& asByteArray() { return held<Type::ByteArray>(_s.bytes); }
  Array const& asArray() const { return held<Type::Array>(_s.array); }
  Array& asArray() { return held<Type::Array>(_s.array); }
  Map const& asMap() const { return held<Type::Map>(_s.map); }
  Map& asMap() { return held<Type::Map>(_s.map); }
  AutoPtr<RefCountedObject> const& asObject() const;

  /// The integer checked to fit T; RangeException otherwise.
  template <std::integral T>
  T to() const {
    if (is(Type::Integer) && std::in_range<T>(_s.i))
      return static_cast<T>(_s.i);
    if (is(Type::UnsignedInteger)) {
      uint64_t u = _s.u;
      if (u > static_cast<uint64_t>(std::numeric_limits<T>::max()))
        throwOutOfRange();
      return static_cast<T>(u);
    }
    int64_t i = asInt();
    if (!std::in_range<T>(i))
      throwOutOfRange();
    return static_cast<T>(i);
  }

  /// The object if the value holds one of dynamic type T, else null.
  template <typename T>
  T* objectAs() const {
    return _type == Type::Object ? dynamic_cast<T*>(_s.object.get()) : nullptr;
  }
  /// The boxed value if the value holds a Boxed<T>, else null.
  template <typename T>
  T const* boxed() const {
    auto* b = objectAs<Boxed<T>>();
    return b ? &b->value() : nullptr;
  }

  // Map access. `at` throws RangeException for a missing key or a value that is not a map;
  // `get` returns the default instead.
  Value const& at(Value const& key) const;
  Value const& get(Value const& key, Value const& fallback = NIL) const;
  /// With a temporary fallback the result is a copy, so that it cannot dangle.
  Value get(Value const& key, Value&& fallback) const { return get(key, fallback); }
  bool contains(Value const& key) const;
  // Integer keys, the keys of every record, are looked up without building a key value.
  template <IntegerNotBool K>
  Value const& at(K key) const {
    if (!std::in_range<int64_t>(key))
      return at(Value(key));
    Value const* found = findInteger(static_cast<int64_t>(key));
    return found ? *found : throwNoSuchKey(Value(key));
  }
  template <IntegerNotBool K>
  Value const& get(K key, Value const& fallback = NIL) const {
    if (!std::in_range<int64_t>(key))
      return get(Value(key), fallback);
    Value const* found = findInteger(static_cast<int64_t>(key));
    return found ? *found : fallback;
  }
  template <IntegerNotBool K>
  Value get(K key, Value&& fallback) const {
    return get(key, fallback);
  }
  // Text keys, the keys of every application message, likewise.
  Value const& at(char const* key) const {
    Value const* found = findString(key);
    return found ? *found : throwNoSuchKey(Value(key));
  }
  Value const& get(char const* key, Value const& fallback = NIL) const {
    Value const* found = findString(key);
    return found ? *found : fallback;
  }
  Value get(char const* key, Value&& fallback) const { return get(key, fallback); }
  bool contains(char const* key) const { return findString(key) != nullptr; }
  template <IntegerNotBool K>
  bool contains(K key) const {
    return std::in_range<int64_t>(key) ? findInteger(static_cast<int64_t>(key)) != nullptr
                                       : contains(Value(key));
  }
  /// Makes the value the text `text`, built where the value lies: decoders fill a record's
  /// slots with it without moving each text twice.
  void assignString(std::string_view text) {
    reset();
    new (&_s.string) fn::String(text);
    _type = Type::String;
  }
  /// Makes the value an empty map, built where the value lies, and returns it to be filled.
  /// A map keeps the room it had for entries.
  Map& assignMap() {
    if (_type == Type::Map) {
      _s.map.clear();
      return _s.map;
    }
    reset();
    new (&_s.map) Map();
    _type = Type::Map;
    return _s.map;
  }

  /// Makes the value a map if it is null, then returns the member (inserted as null).
  Value& operator[](Value const& key);
  Value& operator[](char const* key) { return (*this)[Value(key)]; }
  size_t erase(Value const& key);

  // Array access.
  Value const& element(size_t index) const;
  void append(Value item);
  size_t size() const;

  /// Follows a dotted path of map members ("passwords.mail"), creating maps where absent;
  /// a member on the path that is not a map is replaced by one.
  Value& mapForPath(std::string_view path);
  /// Follows a dotted path without changing anything; NIL when some member is missing.
  Value const& valueForPathIfExists(std::string_view path) const;

  /// A readable rendering: JSON-like, with bytes and objects in their own text forms.
  fn::String toString() const;
  /// The kind and a short rendering, for error details.
  fn::String detailInfo() const;
  static std::string_view typeName(Type type);

  /// The map order, with the common case of two integer keys decided inline.
  static bool keyLess(Value const& a, Value const& b) {
    if (a._type == b._type) {
      if (a._type == Type::Integer)
        return a._s.i < b._s.i;
      if (a._type == Type::String) {
        // Keys mostly differ in their first byte: decided here, without a call to memcmp.
        // Bytes compare unsigned, as std::string does.
        std::string_view x = a._s.string, y = b._s.string;
        if (!x.empty() && !y.empty() && x[0] != y[0])
          return static_cast<unsigned char>(x[0]) < static_cast<unsigned char>(y[0]);
        return x < y;
      }
    }
    return (a <=> b) < 0;
  }

  friend FN_EXPORT bool operator==(Value const& a, Value const& b);
  friend FN_EXPORT std::strong_ordering operator<=>(Value const& a, Value const& b);

private:
  friend class ValueMap;

  // Null, booleans and numbers are 8 plain bytes: copying and destroying them never leaves
  // the inline code.
  static constexpr bool isScalar(Type t) { return t < Type::String; }
  void reset() noexcept {
    // Texts, the most common of the rest, are destroyed inline: mostly a short text that
    // lives in the string itself and frees nothing.
    if (_type == Type::String)
      _s.string.~String();
    else if (!isScalar(_type))
      destroy();
    _type = Type::Null;
  }
  void destroy() noexcept;
  void copyFrom(Value const& other);
  void moveFrom(Value&& other) noexcept;
  /// -1, 0, 1 as this compares to the integer key `key`, by the map order.
  int compareToInteger(int64_t key) const {
    if (_type != Type::Integer)
      return _type < Type::Integer ? -1 : 1;
    return _s.i < key ? -1 : (_s.i > key ? 1 : 0);
  }

  // Inline from their first declaration, so that a DLL build does not import them.
  inline Value const* findInteger(int64_t key) const;
  inline Value const* findString(std::string_view key) const;
  [[noreturn]] Value const& throwNoSuchKey(Value const& key) const;
  [[noreturn]] void throwWrongType(Type expected) const;
  int64_t convertToInt() const;
  uint64_t convertToUInt() const;
  template <Type T, typename M>
  M& held(M& member) const {
    if (_type != T)
      throwWrongType(T);
    return member;
  }
  [[noreturn]] void throwOutOfRange() const;

  Type _type = Type::Null;
  union Storage {
    Storage() {}
    ~Storage() {}
    bool b;
    int64_t i;
    uint64_t u;
    double d;
    fn::String string;
    fn::ByteArray bytes;
    Array array;
    Map map;
    AutoPtr<RefCountedObject> object;
  } _s;
};

inline size_t ValueMap::size() const {
  return _entries.size();
}
inline bool ValueMap::empty() const {
  return _entries.empty();
}
inline ValueMap::iterator ValueMap::begin() {
  return _entries.begin();
}
inline ValueMap::iterator ValueMap::end() {
  return _entries.end();
}
inline ValueMap::const_iterator ValueMap::begin() const {
  return _entries.begin();
}
inline ValueMap::const_iterator ValueMap::end() const {
  return _entries.end();
}
inline bool ValueMap::contains(Value const& key) const {
  return find(key) != end();
}
inline ValueMap::iterator ValueMap::erase(const_iterator at) {
  return _entries.erase(at);
}
inline void ValueMap::clear() {
  _entries.clear();
}
inline ValueMap::Entry& ValueMap::appendUnordered() {
  return _entries.emplace_back();
}
inline void ValueMap::reserve(size_t n) {
  _entries.reserve(n);
}
inline size_t ValueMap::capacity() const {
  return _entries.capacity();
}
inline ValueMap::const_iterator ValueMap::find(int64_t key) const {
  // Records have a handful of entries: a linear scan beats a binary search there.
  if (_entries.size() > 16)
    return find(Value(key));
  for (auto at = _entries.begin(); at != _entries.end(); ++at) {
    int c = at->first.compareToInteger(key);
    if (c == 0)
      return at;
    if (c > 0)
      break;
  }
  return _entries.end();
}

inline ValueMap::const_iterator ValueMap::find(std::string_view key) const {
  if (_entries.size() > 16)
    return find(Value(key));
  // Strings sort after every number: skip those, then compare texts.
  for (auto at = _entries.begin(); at != _entries.end(); ++at) {
    Value const& k = at->first;
    if (k._type < Value::Type::String)
      continue;
    if (k._type > Value::Type::String)
      break;
    int c = std::string_view(k._s.string).compare(key);
    if (c == 0)
      return at;
    if (c > 0)
      break;
  }
  return _entries.end();
}

inline Value const* Value::findString(std::string_view key) const {
  if (_type != Type::Map)
    return nullptr;
  auto found = _s.map.find(key);
  return found == _s.map.end() ? nullptr : &found->second;
}

inline Value const* Value::findInteger(int64_t key) const {
  if (_type != Type::Map)
    return nullptr;
  auto found = _s.map.find(key);
  return found == _s.map.end() ? nullptr : &found->second;
}

}  // namespace fn

template <>
struct fmt::formatter<fn::Value> : fmt::formatter<std::string_view> {
  auto format(fn::Value const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(v.toString()), ctx);
  }
};

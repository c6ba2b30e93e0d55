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
#include <variant>
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
  bool contains(Value const& key) const;
  /// The value under `key`, inserted as null when absent.
  Value& operator[](Value const& key);
  void insertOrAssign(Value key, Value value);
  size_t erase(Value const& key);
  iterator erase(const_iterator at);
  void clear();
  void reserve(size_t n);

  bool operator==(ValueMap const& other) const;

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

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool v) : _v(v) {}
  template <IntegerNotBool T>
  Value(T v) {
    if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(int64_t)) {
      if (v > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        _v = static_cast<uint64_t>(v);
        return;
      }
    }
    _v = static_cast<int64_t>(v);
  }
  Value(double v) : _v(v) {}
  Value(float v) : _v(static_cast<double>(v)) {}
  Value(char const* v) : _v(fn::String(v)) {}
  Value(std::string_view v) : _v(fn::String(v)) {}
  Value(std::string const& v) : _v(fn::String(v)) {}
  Value(fn::String v) : _v(std::move(v)) {}
  Value(fn::ByteArray v) : _v(std::move(v)) {}
  Value(Array v) : _v(std::move(v)) {}
  Value(Map v) : _v(std::move(v)) {}
  template <RefCounted T>
  Value(AutoPtr<T> object) : _v(AutoPtr<RefCountedObject>(std::move(object))) {}

  static Value array(std::initializer_list<Value> items = {}) { return Value(Array(items)); }
  static Value map(std::initializer_list<ValueMap::Entry> entries = {}) {
    return Value(Map(entries));
  }
  /// Boxes a plain value type (a fraction, a timestamp) as an object value.
  template <typename T>
  static Value box(T value) {
    return Value(makeAuto<Boxed<T>>(std::move(value)));
  }

  Type type() const { return static_cast<Type>(_v.index()); }
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

  // Accessors throw RangeException when the value has another kind.
  bool asBool() const;
  int64_t asInt() const;
  uint64_t asUInt() const;
  double asDouble() const;
  fn::String const& asString() const;
  fn::ByteArray const& asByteArray() const;
  fn::ByteArray& asByteArray();
  Array const& asArray() const;
  Array& asArray();
  Map const& asMap() const;
  Map& asMap();
  AutoPtr<RefCountedObject> const& asObject() const;

  /// The integer checked to fit T; RangeException otherwise.
  template <std::integral T>
  T to() const {
    if (is(Type::UnsignedInteger)) {
      uint64_t u = std::get<uint64_t>(_v);
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
    auto const* object = std::get_if<AutoPtr<RefCountedObject>>(&_v);
    return object ? dynamic_cast<T*>(object->get()) : nullptr;
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

  friend FN_EXPORT bool operator==(Value const& a, Value const& b);
  friend FN_EXPORT std::strong_ordering operator<=>(Value const& a, Value const& b);

private:
  [[noreturn]] void throwWrongType(Type expected) const;
  [[noreturn]] void throwOutOfRange() const;

  std::variant<std::monostate,
               bool,
               int64_t,
               uint64_t,
               double,
               fn::String,
               fn::ByteArray,
               Array,
               Map,
               AutoPtr<RefCountedObject>>
      _v;
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
inline void ValueMap::reserve(size_t n) {
  _entries.reserve(n);
}

}  // namespace fn

template <>
struct fmt::formatter<fn::Value> : fmt::formatter<std::string_view> {
  auto format(fn::Value const& v, format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string_view(v.toString()), ctx);
  }
};

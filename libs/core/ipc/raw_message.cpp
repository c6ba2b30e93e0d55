#include "core/ipc/raw_message.h"

#include <cstring>
#include <limits>
#include <string_view>

#include "foundation/mpack.h"

namespace ipc {

namespace {

// Deeper records are left to the decoder, which applies its own limit.
constexpr int MAX_DEPTH = 16;

class Cursor {
public:
  Cursor(uint8_t const* data, size_t size) : _data(data), _size(size) {}

  size_t at() const { return _at; }
  bool atEnd() const { return _at == _size; }

  bool peek(uint8_t& out) const {
    if (_at >= _size)
      return false;
    out = _data[_at];
    return true;
  }

  bool byte(uint8_t& out) {
    if (_at >= _size)
      return false;
    out = _data[_at++];
    return true;
  }

  template <typename T>
  bool big(T& out) {
    if (sizeof(T) > _size - _at)
      return false;
    T value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
      value = static_cast<T>((value << 8) | _data[_at + i]);
    _at += sizeof(T);
    out = value;
    return true;
  }

  bool bytes(size_t count, uint8_t const*& out) {
    if (count > _size - _at)
      return false;
    out = _data + _at;
    _at += count;
    return true;
  }

private:
  uint8_t const* _data;
  size_t _size;
  size_t _at = 0;
};

// An integer as the decoder would hold it: negative ones as int64, the rest as uint64.
struct Integer {
  bool negative = false;
  uint64_t bits = 0;

  bool operator<(Integer const& other) const {
    if (negative != other.negative)
      return negative;
    return negative ? static_cast<int64_t>(bits) < static_cast<int64_t>(other.bits)
                    : bits < other.bits;
  }
};

bool isIntegerTag(uint8_t b) {
  return b <= 0x7f || b >= 0xe0 || (b >= 0xcc && b <= 0xd3);
}

template <typename T>
bool readAbove(Cursor& cursor, uint64_t floor, Integer& out) {
  T value;
  if (!cursor.big(value) || value <= floor)
    return false;
  out = {false, value};
  return true;
}

template <typename U>
bool readBelow(Cursor& cursor, int64_t ceiling, Integer& out) {
  U raw;
  if (!cursor.big(raw))
    return false;
  auto value = static_cast<int64_t>(static_cast<std::make_signed_t<U>>(raw));
  if (value >= ceiling)
    return false;
  out = {true, static_cast<uint64_t>(value)};
  return true;
}

// The integer after tag `b`, if it is in the shortest form: the encoder writes non-negative
// values unsigned and every value in the fewest bytes.
bool readInteger(Cursor& cursor, uint8_t b, Integer& out) {
  if (b <= 0x7f) {
    out = {false, b};
    return true;
  }
  if (b >= 0xe0) {
    out = {true, static_cast<uint64_t>(static_cast<int64_t>(static_cast<int8_t>(b)))};
    return true;
  }
  switch (b) {
    case 0xcc:
      return readAbove<uint8_t>(cursor, 0x7f, out);
    case 0xcd:
      return readAbove<uint16_t>(cursor, 0xff, out);
    case 0xce:
      return readAbove<uint32_t>(cursor, 0xffff, out);
    case 0xcf:
      return readAbove<uint64_t>(cursor, 0xffffffff, out);
    case 0xd0:
      return readBelow<uint8_t>(cursor, -32, out);
    case 0xd1:
      return readBelow<uint16_t>(cursor, std::numeric_limits<int8_t>::min(), out);
    case 0xd2:
      return readBelow<uint32_t>(cursor, std::numeric_limits<int16_t>::min(), out);
    case 0xd3:
      return readBelow<uint64_t>(cursor, std::numeric_limits<int32_t>::min(), out);
    default:
      return false;
  }
}

// Lengths of strings, byte arrays, arrays and maps in their shortest form: `minimum` is the
// smallest count that the encoder writes with this tag.
template <typename T>
bool readCount(Cursor& cursor, uint64_t minimum, uint64_t& out) {
  T value;
  if (!cursor.big(value) || value < minimum)
    return false;
  out = value;
  return true;
}

bool readString(Cursor& cursor, uint8_t b, std::string_view& out) {
  uint64_t n;
  if (b >= 0xa0 && b <= 0xbf)
    n = b & 0x1f;
  else if (!(b == 0xd9   ? readCount<uint8_t>(cursor, 32, n)
             : b == 0xda ? readCount<uint16_t>(cursor, 0x100, n)
             : b == 0xdb ? readCount<uint32_t>(cursor, 0x10000, n)
                         : false))
    return false;
  uint8_t const* p;
  if (!cursor.bytes(n, p))
    return false;
  out = std::string_view(reinterpret_cast<char const*>(p), n);
  return true;
}

bool readMapCount(Cursor& cursor, uint8_t b, uint64_t& out) {
  if (b >= 0x80 && b <= 0x8f) {
    out = b & 0x0f;
    return true;
  }
  return b == 0xde   ? readCount<uint16_t>(cursor, 16, out)
         : b == 0xdf ? readCount<uint32_t>(cursor, 0x10000, out)
                     : false;
}

bool skipValue(Cursor& cursor, int depth);

// A map whose keys are all integers or all strings, strictly ascending in the order the
// decoder keeps (so nothing is reordered or merged when it is decoded).
bool skipMap(Cursor& cursor, uint64_t count, int depth) {
  Integer lastInteger;
  std::string_view lastString;
  bool integerKeys = false;
  for (uint64_t i = 0; i < count; ++i) {
    uint8_t b;
    if (!cursor.byte(b))
      return false;
    if (isIntegerTag(b)) {
      Integer key;
      if (!readInteger(cursor, b, key) || (i > 0 && (!integerKeys || !(lastInteger < key))))
        return false;
      lastInteger = key;
      integerKeys = true;
    } else {
      std::string_view key;
      if (!readString(cursor, b, key) || (i > 0 && (integerKeys || !(lastString < key))))
        return false;
      lastString = key;
    }
    if (!skipValue(cursor, depth + 1))
      return false;
  }
  return true;
}

bool skipValue(Cursor& cursor, int depth) {
  if (depth > MAX_DEPTH)
    return false;
  uint8_t b;
  if (!cursor.byte(b))
    return false;
  if (isIntegerTag(b)) {
    Integer ignored;
    return readInteger(cursor, b, ignored);
  }
  if ((b >= 0xa0 && b <= 0xbf) || (b >= 0xd9 && b <= 0xdb)) {
    std::string_view ignored;
    return readString(cursor, b, ignored);
  }
  uint64_t n;
  uint8_t const* p;
  if ((b >= 0x80 && b <= 0x8f) || b == 0xde || b == 0xdf)
    return readMapCount(cursor, b, n) && skipMap(cursor, n, depth);
  switch (b) {
    case 0xc0:
    case 0xc2:
    case 0xc3:
      return true;
    case 0xc4:
      return readCount<uint8_t>(cursor, 0, n) && cursor.bytes(n, p);
    case 0xc5:
      return readCount<uint16_t>(cursor, 0x100, n) && cursor.bytes(n, p);
    case 0xc6:
      return readCount<uint32_t>(cursor, 0x10000, n) && cursor.bytes(n, p);
    default:
      break;
  }
  if (b >= 0x90 && b <= 0x9f)
    n = b & 0x0f;
  else if (!(b == 0xdc   ? readCount<uint16_t>(cursor, 16, n)
             : b == 0xdd ? readCount<uint32_t>(cursor, 0x10000, n)
                         : false))
    return false;  // floating point, extensions (decoded as nil without a hook), 0xc1
  for (uint64_t i = 0; i < n; ++i) {
    if (!skipValue(cursor, depth + 1))
      return false;
  }
  return true;
}

bool readNonNegative(Cursor& cursor, uint64_t& out) {
  uint8_t b;
  Integer value;
  if (!cursor.byte(b) || !readInteger(cursor, b, value) || value.negative)
    return false;
  out = value.bits;
  return true;
}

// The `count` (1 to 8) bytes at `p` as a big-endian number, if there are that many.
[[gnu::always_inline]] inline bool readBigEndian(uint8_t const*& p,
                                                 uint8_t const* end,
                                                 size_t count,
                                                 uint64_t& out) {
  if (count == 0 || static_cast<size_t>(end - p) < count)
    return false;
  uint64_t value = 0;
  for (size_t i = 0; i < count; ++i)
    value = (value << 8) | p[i];
  p += count;
  out = value;
  return true;
}

// At `p`, the one-byte key `expected` and a non-negative integer in its shortest form, as the
// general reading demands; forced inline, since this runs for every record.
[[gnu::always_inline]] inline bool readEntry(uint8_t const*& p,
                                             uint8_t const* end,
                                             uint8_t expected,
                                             uint64_t& out) {
  if (end - p < 2 || p[0] != expected)
    return false;
  uint8_t tag = p[1];
  p += 2;
  if (tag <= 0x7f) {
    out = tag;
    return true;
  }
  size_t size = tag == 0xcc ? 1 : tag == 0xcd ? 2 : tag == 0xce ? 4 : tag == 0xcf ? 8 : 0;
  uint64_t value;
  if (!readBigEndian(p, end, size, value))
    return false;
  out = value;
  // The value needs every byte it was given.
  return size == 1 ? value > 0x7f : value >> (4 * size) != 0;
}

}  // namespace

// The shape our own encoder gives nearly every MESSAGE, read straight through: TYPE, OBJECT_ID,
// SOURCE_WORKER_ID (only once the hub added it), TARGET_WORKER_ID, a byte-array PAYLOAD and an
// empty OBJECTS map. The same checks as the general reading below apply; anything else is
// left to it.
bool RawMessage::scanCommonShape() {
  uint8_t const* p = _body;
  uint8_t const* end = _body + _length;
  if (p == end || (*p != 0x85 && *p != 0x86))
    return false;
  _entryCount = *p & 0x0f;
  _hasSource = *p == 0x86;
  _entriesStart = 1;
  ++p;
  uint64_t number;
  if (!readEntry(p, end, key::TYPE, number) || number != type::MESSAGE)
    return false;
  if (!readEntry(p, end, key::OBJECT_ID, number))
    return false;
  _objectId = number;
  _sourceStart = static_cast<size_t>(p - _body);
  if (_hasSource) {
    if (!readEntry(p, end, key::SOURCE_WORKER_ID, number) || number > NO_WORKER)
      return false;
    _source = static_cast<uint16_t>(number);
  }
  _sourceEnd = static_cast<size_t>(p - _body);
  if (!readEntry(p, end, key::TARGET_WORKER_ID, number) || number > NO_WORKER)
    return false;
  _target = static_cast<uint16_t>(number);
  // PAYLOAD, a byte array in its shortest form.
  if (end - p < 3 || p[0] != key::PAYLOAD)
    return false;
  uint8_t tag = p[1];
  size_t header = tag == 0xc4 ? 1 : tag == 0xc5 ? 2 : tag == 0xc6 ? 4 : 0;
  p += 2;
  uint64_t size;
  if (!readBigEndian(p, end, header, size))
    return false;
  if ((header == 2 && size < 0x100) || (header == 4 && size < 0x10000) ||
      static_cast<uint64_t>(end - p) < size)
    return false;
  _payload = fn::ByteView(p, size);
  p += size;
  // An empty OBJECTS map, and nothing after it.
  if (end - p != 2 || p[0] != key::OBJECTS || p[1] != 0x80)
    return false;
  _objectsBytes = fn::ByteView(p + 1, 1);
  return true;
}

bool RawMessage::scan(uint8_t const* body, size_t length) {
  _body = body;
  _length = length;
  _hasSource = false;
  _objectId.reset();
  _objects.clear();
  _source.reset();
  _payload.reset();
  _objectsBytes = {};
  if (scanCommonShape())
    return true;
  _hasSource = false;
  _objectId.reset();
  _source.reset();
  _payload.reset();
  Cursor cursor(body, length);
  uint8_t b;
  if (!cursor.byte(b) || !readMapCount(cursor, b, _entryCount))
    return false;
  _entriesStart = cursor.at();
  _sourceStart = _sourceEnd = length;
  bool sourcePlaced = false;
  bool hasType = false;
  bool hasTarget = false;
  int lastKey = -1;
  // Tested in the order of the keys rather than switched on: each test then goes the same
  // way record after record, where a jump table's target changes with every entry.
  for (uint64_t i = 0; i < _entryCount; ++i) {
    size_t entryStart = cursor.at();
    uint8_t keyByte;
    // Record keys are small non-negative integers, one byte each, in ascending order.
    if (!cursor.byte(keyByte) || keyByte > 0x7f || keyByte <= lastKey)
      return false;
    lastKey = keyByte;
    if (!sourcePlaced && keyByte > key::SOURCE_WORKER_ID) {
      _sourceStart = _sourceEnd = entryStart;
      sourcePlaced = true;
    }
    uint64_t number;
    if (keyByte == key::TYPE) {
      if (!readNonNegative(cursor, number) || number != type::MESSAGE)
        return false;
      hasType = true;
    } else if (keyByte == key::OBJECT_ID) {
      // Only routing to every holder needs it; another kind matters only then.
      uint8_t tag;
      Integer id;
      if (!cursor.peek(tag))
        return false;
      if (!isIntegerTag(tag)) {
        if (!skipValue(cursor, 1))
          return false;
      } else if (!cursor.byte(tag) || !readInteger(cursor, tag, id)) {
        return false;
      } else if (!id.negative) {
        _objectId = id.bits;
      }
    } else if (keyByte == key::SOURCE_WORKER_ID) {
      uint8_t tag;
      if (cursor.peek(tag) && (tag <= 0x7f || tag == 0xcc || tag == 0xcd)) {
        if (!readNonNegative(cursor, number) || number > NO_WORKER)
          return false;
        _source = static_cast<uint16_t>(number);
      } else if (!skipValue(cursor, 1)) {
        return false;
      }
      _sourceStart = entryStart;
      _sourceEnd = cursor.at();
      _hasSource = true;
      sourcePlaced = true;
    } else if (keyByte == key::TARGET_WORKER_ID) {
      if (!readNonNegative(cursor, number) || number > NO_WORKER)
        return false;
      _target = static_cast<uint16_t>(number);
      hasTarget = true;
    } else if (keyByte == key::PAYLOAD) {
      uint8_t tag;
      uint64_t n;
      uint8_t const* bytes;
      if (!cursor.peek(tag))
        return false;
      if (tag == 0xc4 || tag == 0xc5 || tag == 0xc6) {
        // A byte array, as payloads are, read here rather than skipped in general.
        cursor.byte(tag);
        if (!(tag == 0xc4   ? readCount<uint8_t>(cursor, 0, n)
              : tag == 0xc5 ? readCount<uint16_t>(cursor, 0x100, n)
                            : readCount<uint32_t>(cursor, 0x10000, n)) ||
            !cursor.bytes(n, bytes))
          return false;
        _payload = fn::ByteView(bytes, n);
      } else if (!skipValue(cursor, 1)) {
        return false;
      }
    } else if (keyByte == key::OBJECTS) {
      size_t start = cursor.at();
      uint8_t tag;
      uint64_t count;
      if (!cursor.byte(tag) || !readMapCount(cursor, tag, count))
        return false;
      for (uint64_t j = 0; j < count; ++j) {
        if (!readNonNegative(cursor, number) || (j > 0 && number <= _objects.back()))
          return false;
        _objects.push_back(number);
        if (!skipValue(cursor, 2))
          return false;
      }
      _objectsBytes = fn::ByteView(body + start, cursor.at() - start);
    } else if (!skipValue(cursor, 1)) {
      return false;
    }
  }
  if (!cursor.atEnd() || !hasType || !hasTarget)
    return false;
  return _target != NO_WORKER || _objectId.has_value();
}

void RawMessage::appendFrame(fn::ByteArray& out, uint16_t source) const {
  uint8_t header[5];
  fn::mpack::Writer headerWriter(header);
  headerWriter.mapHeader(_entryCount + (_hasSource ? 0 : 1));
  size_t headerSize = headerWriter.written();
  uint8_t entry[4];
  fn::mpack::Writer entryWriter(entry);
  entryWriter.unsignedInteger(key::SOURCE_WORKER_ID);
  entryWriter.unsignedInteger(source);
  size_t entrySize = entryWriter.written();
  size_t before = _sourceStart - _entriesStart;
  size_t after = _length - _sourceEnd;
  auto bodySize = static_cast<uint32_t>(headerSize + before + entrySize + after);
  uint8_t prefix[4] = {static_cast<uint8_t>(bodySize), static_cast<uint8_t>(bodySize >> 8),
                       static_cast<uint8_t>(bodySize >> 16), static_cast<uint8_t>(bodySize >> 24)};
  // One resize and plain copies: each append would be a call of its own.
  size_t at = out.size();
  out.resize(at + 4 + bodySize);
  uint8_t* p = out.data() + at;
  auto put = [&p](void const* bytes, size_t count) {
    fn::copyBytes(p, bytes, count);
    p += count;
  };
  put(prefix, sizeof prefix);
  put(header, headerSize);
  put(_body + _entriesStart, before);
  put(entry, entrySize);
  put(_body + _sourceEnd, after);
}

}  // namespace ipc

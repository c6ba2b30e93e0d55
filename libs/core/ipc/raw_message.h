#pragma once

// ipc::RawMessage: a MESSAGE record read where it lies in its frame body, so that the hub can
// route it and forward its bytes without building a record value and encoding it again.
//
// scan() accepts only records whose bytes are exactly what encoding their decoded record
// gives back: a map with small integer keys in ascending order, every value in the shortest
// form the encoder writes, no floating point or extension values, no duplicate keys, and the
// keys that routing needs present and in range. Anything else (other types, another key
// order, odd encodings, malformed or truncated data) is refused, and the caller decodes the
// record as usual, so refusing is always safe. A forwarded frame is therefore byte for byte
// the frame the decoded record would have been written as.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "core/export.h"
#include "core/ipc/message.h"
#include "foundation/byte_array.h"

namespace ipc {

class CORE_EXPORT RawMessage {
public:
  /// Reads `body` (it must outlive the use of this object); false when the record is not a
  /// MESSAGE this reader can vouch for.
  bool scan(uint8_t const* body, size_t length);

  uint16_t target() const { return _target; }
  /// OBJECT_ID, when it is present and a non-negative integer (always so for target 0xFFFF).
  std::optional<ObjectId> objectId() const { return _objectId; }
  /// The keys of OBJECTS, in their order.
  std::vector<ObjectId> const& objects() const { return _objects; }
  /// SOURCE_WORKER_ID, when present and a worker id.
  std::optional<uint16_t> source() const { return _source; }
  /// The bytes of PAYLOAD where they lie, when it is a byte array.
  std::optional<fn::ByteView> payload() const { return _payload; }
  /// The encoded OBJECTS map where it lies (empty when the record has none).
  fn::ByteView objectsBytes() const { return _objectsBytes; }

  /// Appends the frame of the record with SOURCE_WORKER_ID set to `source`.
  void appendFrame(fn::ByteArray& out, uint16_t source) const;

private:
  bool scanCommonShape();

  uint8_t const* _body = nullptr;
  size_t _length = 0;
  size_t _entriesStart = 0;
  uint64_t _entryCount = 0;
  // SOURCE_WORKER_ID goes between these offsets: the old entry's bytes, or an empty range
  // where the key belongs in the order.
  size_t _sourceStart = 0;
  size_t _sourceEnd = 0;
  bool _hasSource = false;
  uint16_t _target = NO_WORKER;
  std::optional<ObjectId> _objectId;
  std::vector<ObjectId> _objects;
  std::optional<uint16_t> _source;
  std::optional<fn::ByteView> _payload;
  fn::ByteView _objectsBytes;
};

}  // namespace ipc

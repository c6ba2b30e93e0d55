#pragma once

// The records that travel on the hub's pipe: maps with small integer keys, framed as a 4-byte
// little-endian length followed by the MessagePack body.

#include <cstdint>

#include "foundation/value.h"

namespace ipc {

/// (owning worker's object counter << 16) + owning worker id.
using ObjectId = uint64_t;

inline constexpr ObjectId REGISTRY_OBJECT_ID = 0;
/// As a worker's own id: not connected yet. As a target: every holder of the object.
inline constexpr uint16_t NO_WORKER = 0xFFFF;

constexpr uint16_t ownerOf(ObjectId id) {
  return static_cast<uint16_t>(id & 0xFFFF);
}

namespace key {
inline constexpr int TYPE = 1;
inline constexpr int DISPLAY_NAME = 2;
inline constexpr int TAG = 3;
inline constexpr int WORKER_ID = 4;
inline constexpr int OBJECT_ID = 5;
inline constexpr int SOURCE_WORKER_ID = 6;
inline constexpr int TARGET_WORKER_ID = 7;
inline constexpr int PAYLOAD = 8;
inline constexpr int OBJECTS = 9;
inline constexpr int USAGE_COUNT = 10;
}  // namespace key

namespace type {
inline constexpr int INVALID = 0;
inline constexpr int HELLO = 1;
inline constexpr int PING = 2;
inline constexpr int PONG = 3;
inline constexpr int MESSAGE = 4;
inline constexpr int REFERENCE_RELEASE = 5;
inline constexpr int INSTANCE_RELEASE = 6;
inline constexpr int WORKER_DEAD = 7;
/// The hub is about to quit. It has no debug name on purpose and renders as its number.
inline constexpr int ABOUT_TO_QUIT = 8;
}  // namespace type

}  // namespace ipc

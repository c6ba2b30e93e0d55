#pragma once

#include <array>
#include <cstdint>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

class FN_EXPORT UUID {
public:
  UUID() = default;
  explicit UUID(std::array<uint8_t, 16> bytes) : _bytes(bytes) {}
  /// The canonical lower-case form, 8-4-4-4-12 hexadecimal digits.
  String toString() const;
  std::array<uint8_t, 16> const& bytes() const { return _bytes; }
  bool operator==(UUID const&) const = default;

private:
  std::array<uint8_t, 16> _bytes{};
};

class FN_EXPORT UUIDGenerator {
public:
  static UUIDGenerator& defaultGenerator();
  /// A random (version 4) UUID from the system's random source.
  UUID createOne();
};

}  // namespace fn

#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

/// A growable run of bytes.
class FN_EXPORT ByteArray : public std::vector<uint8_t> {
public:
  using std::vector<uint8_t>::vector;
  ByteArray() = default;
  explicit ByteArray(std::string_view bytes) : std::vector<uint8_t>(bytes.begin(), bytes.end()) {}

  void append(void const* bytes, size_t count) {
    auto* p = static_cast<uint8_t const*>(bytes);
    insert(end(), p, p + count);
  }
  std::string_view view() const { return {reinterpret_cast<char const*>(data()), size()}; }

  /// Lower-case hexadecimal, for logs and diagnostics.
  String toHex() const;
  /// "<N bytes: 0a0b...>", abbreviated after 32 bytes.
  String toString() const;
};

}  // namespace fn

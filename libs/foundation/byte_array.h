#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

/// Bytes borrowed for the length of a call; a ByteArray converts to it.
using ByteView = std::span<uint8_t const>;

/// A growable run of bytes.
class FN_EXPORT ByteArray : public std::vector<uint8_t> {
public:
  using std::vector<uint8_t>::vector;
  ByteArray() = default;
  explicit ByteArray(std::string_view bytes) : std::vector<uint8_t>(bytes.begin(), bytes.end()) {}

  void append(void const* bytes, size_t count) {
    // Encoders append a byte or two at a time: keep that to a size check and a copy.
    if (count == 0)
      return;
    size_t at = size();
    if (capacity() - at < count)
      reserve(std::max(at + count, capacity() * 2));
    // Inserted, not resized and copied over: resizing would zero the bytes first.
    auto const* first = static_cast<uint8_t const*>(bytes);
    insert(end(), first, first + count);
  }
  std::string_view view() const { return {reinterpret_cast<char const*>(data()), size()}; }

  /// Lower-case hexadecimal, for logs and diagnostics.
  String toHex() const;
  /// "<N bytes: 0a0b...>", abbreviated after 32 bytes.
  String toString() const;

  /// Standard Base64 with padding. A `lineWidth` above 0 breaks the text into lines of that
  /// many characters, separated by CR LF (no break after the last line).
  String base64(size_t lineWidth = 0) const;
  /// Decodes standard Base64, ignoring blanks and line breaks anywhere in `text`;
  /// DataFormatException for anything else that is not Base64.
  static ByteArray fromBase64(std::string_view text);

  /// The 32-byte SHA-256 digest of the bytes.
  ByteArray SHA256() const;
};

}  // namespace fn

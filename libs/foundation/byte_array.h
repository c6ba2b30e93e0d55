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

/// memcpy for the short runs of record heads, keys and small texts, copied inline with two
/// overlapping loads and stores where a call to memcpy would cost more than the copy.
// Inlined into a copy from a small array, the branches for longer runs than the array holds
// are never taken, but the compiler's bounds warnings do not know it.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Warray-bounds"
#pragma GCC diagnostic ignored "-Wstringop-overread"
#endif
[[gnu::always_inline]] inline void copyBytes(void* to, void const* from, size_t n) {
  auto* d = static_cast<uint8_t*>(to);
  auto const* s = static_cast<uint8_t const*>(from);
  auto overlapping = [&]<typename Word>(Word) {
    Word first, last;
    std::memcpy(&first, s, sizeof(Word));
    std::memcpy(&last, s + n - sizeof(Word), sizeof(Word));
    std::memcpy(d, &first, sizeof(Word));
    std::memcpy(d + n - sizeof(Word), &last, sizeof(Word));
  };
  if (n > 16)
    std::memcpy(d, s, n);
  else if (n >= 8)
    overlapping(uint64_t{});
  else if (n >= 4)
    overlapping(uint32_t{});
  else if (n >= 2)
    overlapping(uint16_t{});
  else if (n == 1)
    *d = *s;
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

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

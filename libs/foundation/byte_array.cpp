#include "foundation/byte_array.h"

namespace fn {

String ByteArray::toHex() const {
  static constexpr char digits[] = "0123456789abcdef";
  String text;
  text.reserve(size() * 2);
  for (uint8_t byte : *this) {
    text.push_back(digits[byte >> 4]);
    text.push_back(digits[byte & 15]);
  }
  return text;
}

String ByteArray::toString() const {
  constexpr size_t shown = 32;
  ByteArray head(begin(), begin() + std::min(size(), shown));
  return String(fmt::format("<{} bytes: {}{}>", size(), head.toHex(), size() > shown ? "..." : ""));
}

}  // namespace fn

#include "foundation/byte_array.h"

#include <sodium.h>

#include "foundation/exception.h"

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

String ByteArray::base64(size_t lineWidth) const {
  constexpr int variant = sodium_base64_VARIANT_ORIGINAL;
  String encoded(sodium_base64_ENCODED_LEN(size(), variant), '\0');
  sodium_bin2base64(encoded.data(), encoded.size(), data(), size(), variant);
  encoded.resize(encoded.size() - 1);  // the encoder's terminating NUL
  if (lineWidth == 0 || encoded.size() <= lineWidth)
    return encoded;
  String wrapped;
  wrapped.reserve(encoded.size() + (encoded.size() / lineWidth) * 2);
  for (size_t at = 0; at < encoded.size(); at += lineWidth) {
    if (at)
      wrapped += "\r\n";
    wrapped.append(encoded, at, lineWidth);
  }
  return wrapped;
}

ByteArray ByteArray::fromBase64(std::string_view text) {
  ByteArray decoded(text.size() / 4 * 3 + 3);
  size_t length = 0;
  char const* end = nullptr;
  int status = sodium_base642bin(decoded.data(), decoded.size(), text.data(), text.size(),
                                 " \t\r\n", &length, &end, sodium_base64_VARIANT_ORIGINAL);
  if (status != 0 || end != text.data() + text.size()) {
    size_t at = end ? static_cast<size_t>(end - text.data()) : 0;
    throw withDetail(DataFormatException("Invalid Base64"),
                     fmt::format("at character {} of {}", at, text.size()));
  }
  decoded.resize(length);
  return decoded;
}

ByteArray ByteArray::SHA256() const {
  ByteArray digest(crypto_hash_sha256_BYTES);
  crypto_hash_sha256(digest.data(), data(), size());
  return digest;
}

}  // namespace fn

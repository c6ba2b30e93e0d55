#include "foundation/uuid.h"

#include <uv.h>

#include <cerrno>

#include "foundation/exception.h"

namespace fn {

String UUID::toString() const {
  static constexpr char digits[] = "0123456789abcdef";
  String text;
  text.reserve(36);
  for (size_t i = 0; i < _bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10)
      text.push_back('-');
    text.push_back(digits[_bytes[i] >> 4]);
    text.push_back(digits[_bytes[i] & 15]);
  }
  return text;
}

UUIDGenerator& UUIDGenerator::defaultGenerator() {
  static UUIDGenerator generator;
  return generator;
}

UUID UUIDGenerator::createOne() {
  std::array<uint8_t, 16> bytes;
  // The system's random source (getrandom, BCryptGenRandom) through libuv; synchronous
  // without a loop.
  if (int status = uv_random(nullptr, nullptr, bytes.data(), bytes.size(), 0, nullptr); status != 0)
    throw withDetail(RuntimeException("No random bytes for a UUID"), uv_strerror(status));
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0f) | 0x40);
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3f) | 0x80);
  return UUID(bytes);
}

}  // namespace fn

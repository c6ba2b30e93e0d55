#pragma once

// 64-bit FNV-1a over bytes: a fast hash for short texts such as category names and log
// filters, where a hash set is checked before any comparison.

#include <cstdint>
#include <string_view>

namespace fn {

inline constexpr uint64_t FNV1A_OFFSET_BASIS = 0xcbf29ce484222325ull;
inline constexpr uint64_t FNV1A_PRIME = 0x100000001b3ull;

constexpr uint64_t fnv1a64(std::string_view bytes) {
  uint64_t hash = FNV1A_OFFSET_BASIS;
  for (char c : bytes) {
    hash ^= static_cast<uint8_t>(c);
    hash *= FNV1A_PRIME;
  }
  return hash;
}

}  // namespace fn

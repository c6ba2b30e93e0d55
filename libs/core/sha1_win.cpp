#include <windows.h>

#include <bcrypt.h>

#include <algorithm>

#include "core/sha1.h"
#include "foundation/exception.h"

namespace core {

struct Sha1::State {
  ~State() {
    if (hash)
      ::BCryptDestroyHash(hash);
  }
  BCRYPT_HASH_HANDLE hash = nullptr;
};

namespace {

// The provider is opened once and kept: opening it is the expensive part.
BCRYPT_ALG_HANDLE sha1Provider() {
  static BCRYPT_ALG_HANDLE provider = [] {
    BCRYPT_ALG_HANDLE opened = nullptr;
    if (!BCRYPT_SUCCESS(::BCryptOpenAlgorithmProvider(&opened, BCRYPT_SHA1_ALGORITHM, nullptr, 0)))
      return BCRYPT_ALG_HANDLE(nullptr);
    return opened;
  }();
  return provider;
}

}  // namespace

Sha1::Sha1() : _state(std::make_unique<State>()) {
  BCRYPT_ALG_HANDLE provider = sha1Provider();
  if (!provider ||
      !BCRYPT_SUCCESS(::BCryptCreateHash(provider, &_state->hash, nullptr, 0, nullptr, 0, 0)))
    throw fn::RuntimeException("Cannot create a SHA-1 hash");
}

Sha1::~Sha1() = default;

void Sha1::update(uint8_t const* bytes, size_t count) {
  constexpr size_t PART = size_t(1) << 30;
  for (size_t done = 0; done < count; done += PART) {
    ::BCryptHashData(_state->hash, const_cast<PUCHAR>(bytes + done),
                     static_cast<ULONG>(std::min(PART, count - done)), 0);
  }
}

fn::String Sha1::hex() {
  uint8_t digest[20];
  if (!BCRYPT_SUCCESS(::BCryptFinishHash(_state->hash, digest, sizeof digest, 0)))
    throw fn::RuntimeException("Cannot finish a SHA-1 hash");
  fn::String text;
  for (uint8_t byte : digest)
    text += fmt::format("{:02x}", byte);
  return text;
}

}  // namespace core

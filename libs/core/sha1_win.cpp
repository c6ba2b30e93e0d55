#include <bcrypt.h>
#include <windows.h>

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

Sha1::Sha1() : _state(std::make_unique<State>()) {
  // The pseudo-handle of the built-in provider needs no opening (Windows 10 and later).
  if (!BCRYPT_SUCCESS(
          ::BCryptCreateHash(BCRYPT_SHA1_ALG_HANDLE, &_state->hash, nullptr, 0, nullptr, 0, 0)))
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

#pragma once

#include <array>
#include <cstdint>
#include <mutex>

#include "core/encryption.h"
#include "core/export.h"

namespace core {

/// Encrypts secrets with XChaCha20-Poly1305 under a 32-byte key of the current user. The key
/// lives in a file that only the user can read (mode 0600), created on the first encryption;
/// a key file that others can read, or that is not the user's, is refused. The stored form is
/// Base64 of the random nonce followed by the ciphertext.
///
/// Anyone who can read the user's files can read the key: this keeps secrets out of the
/// preferences file and its backups, as DPAPI does on Windows, not away from the user's own
/// processes.
class CORE_EXPORT SodiumEncryption : public Encryption {
public:
  static constexpr char const* KEY_FILE_NAME = "Passwords.key";
  static constexpr size_t KEY_SIZE = 32;

  /// Keeps the key in the per-user data directory.
  SodiumEncryption();
  explicit SodiumEncryption(fn::String keyPath);
  ~SodiumEncryption() override;

  fn::String encrypt(std::string_view plain) override;
  fn::String decrypt(std::string_view stored) override;

  fn::String const& keyPath() const { return _keyPath; }

private:
  /// The key, read from its file (or created there when `create` is set) on first use.
  /// Throws fn::Exception subclasses.
  std::array<uint8_t, KEY_SIZE> const& key(bool create);
  void createKeyFile();
  bool readKeyFile();

  fn::String _keyPath;
  std::mutex _mutex;
  std::array<uint8_t, KEY_SIZE> _key{};
  bool _haveKey = false;
};

}  // namespace core

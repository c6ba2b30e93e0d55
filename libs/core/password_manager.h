#pragma once

// Secrets the application remembers for the user (passwords of accounts on other services),
// addressed by a service and an account within it, kept encrypted in "Passwords.prefs" in the
// per-user data directory.
//
// Every operation reads the file afresh, and every change writes it back, so processes see
// each other's changes at once; two processes changing it at the same moment can lose one of
// the changes (the last writer wins). Use the manager from one thread per process.

#include <memory>
#include <string_view>

#include "core/encryption.h"
#include "core/export.h"
#include "core/preferences.h"
#include "foundation/string.h"

namespace core {

class CORE_EXPORT PasswordManager {
public:
  static constexpr char const* FILE_NAME = "Passwords.prefs";

  virtual void setPassword(std::string_view service,
                           std::string_view account,
                           std::string_view password) = 0;
  /// The secret and `found` true, or the empty string and `found` false. A secret that is
  /// found but cannot be decrypted gives the empty string with `found` true.
  virtual fn::String getPassword(std::string_view service,
                                 std::string_view account,
                                 bool& found) = 0;
  /// Removing an absent entry is not an error; the file is written in every case.
  virtual void removePassword(std::string_view service, std::string_view account) = 0;
  virtual ~PasswordManager();

  fn::String getPassword(std::string_view service, std::string_view account);

  /// The process-wide manager on this platform's encryption; created on first use
  /// (thread-safe) and kept until the process ends.
  static PasswordManager& instance();
};

/// Keeps the secrets in a preferences file under "passwords.<service>.<account>".
class CORE_EXPORT PasswordManagerGeneric : public PasswordManager {
public:
  /// Does not read the file yet.
  PasswordManagerGeneric(std::unique_ptr<Encryption> encryption, fn::String path);
  ~PasswordManagerGeneric() override;

  void setPassword(std::string_view service,
                   std::string_view account,
                   std::string_view password) override;
  /// A file that does not parse is replaced by what this manager last read (nothing, in a
  /// fresh process): a corrupt password file is not worth more than an empty one.
  fn::String getPassword(std::string_view service, std::string_view account, bool& found) override;
  void removePassword(std::string_view service, std::string_view account) override;
  using PasswordManager::getPassword;

private:
  std::unique_ptr<Encryption> _encryption;
  Preferences _preferences;
};

}  // namespace core

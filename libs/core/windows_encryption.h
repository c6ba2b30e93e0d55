#pragma once

#include "core/encryption.h"
#include "core/export.h"

namespace core {

/// Encrypts secrets with the Windows data-protection interface (DPAPI) for the current user;
/// the stored form is Base64 of the protected blob. Built on Windows only.
class CORE_EXPORT WindowsEncryption : public Encryption {
public:
  fn::String encrypt(std::string_view plain) override;
  fn::String decrypt(std::string_view stored) override;
};

}  // namespace core

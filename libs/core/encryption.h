#pragma once

#include <memory>
#include <string_view>

#include "core/export.h"
#include "foundation/string.h"

namespace core {

/// Turns a secret into the text that is stored for it and back. This base class stores
/// secrets as they are; subclasses encrypt them for the current user. Failures never throw:
/// they are logged under "core.password" and give the empty string.
class CORE_EXPORT Encryption {
public:
  virtual fn::String encrypt(std::string_view plain);
  virtual fn::String decrypt(std::string_view stored);
  virtual ~Encryption();

  /// The encryption this platform keeps passwords with: DPAPI on Windows, libsodium with a
  /// per-user key file elsewhere.
  static std::unique_ptr<Encryption> createPlatformDefault();
};

}  // namespace core

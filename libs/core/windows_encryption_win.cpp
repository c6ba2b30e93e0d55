#include <windows.h>
// wincrypt.h needs windows.h first.
#include <dpapi.h>
#include <wincrypt.h>

#include "core/windows_encryption.h"
#include "foundation/byte_array.h"
#include "foundation/exception.h"
#include "foundation/logging/category.h"

namespace core {
namespace {

fn::logging::Category log_("core.password");

constexpr size_t BASE64_LINE_WIDTH = 72;

}  // namespace

std::unique_ptr<Encryption> Encryption::createPlatformDefault() {
  return std::make_unique<WindowsEncryption>();
}

fn::String WindowsEncryption::encrypt(std::string_view plain) {
  try {
    DATA_BLOB input{static_cast<DWORD>(plain.size()),
                    reinterpret_cast<BYTE*>(const_cast<char*>(plain.data()))};
    DATA_BLOB output{};
    // No description, entropy or prompt: the user's own DPAPI scope is the whole protection.
    if (!::CryptProtectData(&input, nullptr, nullptr, nullptr, nullptr, 0, &output)) {
      log_.log(fn::logging::ERR, "Could not encrypt password");
      return {};
    }
    fn::ByteArray blob(output.pbData, output.pbData + output.cbData);
    ::LocalFree(output.pbData);
    return blob.base64(BASE64_LINE_WIDTH);
  } catch (fn::Exception const& e) {
    log_.log(fn::logging::ERR, "Could not encrypt password: {}", e.toString());
    return {};
  }
}

fn::String WindowsEncryption::decrypt(std::string_view stored) {
  try {
    fn::ByteArray blob = fn::ByteArray::fromBase64(stored);
    DATA_BLOB input{static_cast<DWORD>(blob.size()), blob.data()};
    DATA_BLOB output{};
    if (!::CryptUnprotectData(&input, nullptr, nullptr, nullptr, nullptr, 0, &output)) {
      log_.log(fn::logging::ERR, "Could not decrypt password");
      return {};
    }
    fn::String plain(reinterpret_cast<char const*>(output.pbData), output.cbData);
    ::LocalFree(output.pbData);
    return plain;
  } catch (fn::Exception const& e) {
    log_.log(fn::logging::ERR, "Could not decrypt password: {}", e.toString());
    return {};
  }
}

}  // namespace core

// Passwords on Windows: DPAPI protects them under the user's own key.
#include <windows.h>

#include <dpapi.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/password_manager.h"
#include "core/windows_encryption.h"
#include "foundation/byte_array.h"
#include "foundation/file.h"
#include "test_support.h"

namespace core {
namespace {

using testing::LogCapture;
using testing::TemporaryRoot;

constexpr std::string_view SECRET = "correct horse battery staple";

fn::String storedText(fn::String const& path, char const* service, char const* account) {
  auto json = nlohmann::json::parse("{" + std::string(fn::File(path).readAll().view()) + "}");
  return fn::String(json["passwords"][service][account].get<std::string>());
}

// A blob DPAPI made with other key material (extra entropy): this user, another key.
fn::String blobOfAnotherKey(std::string_view plain) {
  DATA_BLOB input{static_cast<DWORD>(plain.size()),
                  reinterpret_cast<BYTE*>(const_cast<char*>(plain.data()))};
  char entropyBytes[] = "another key";
  DATA_BLOB entropy{sizeof entropyBytes, reinterpret_cast<BYTE*>(entropyBytes)};
  DATA_BLOB output{};
  EXPECT_TRUE(::CryptProtectData(&input, nullptr, &entropy, nullptr, nullptr, 0, &output));
  fn::ByteArray blob(output.pbData, output.pbData + output.cbData);
  ::LocalFree(output.pbData);
  return blob.base64(72);
}

TEST(PasswordManagerWindows, DpapiRoundTripsAndRefusesBlobsOfAnotherKeyOrTampered) {
  TemporaryRoot root;
  LogCapture log;
  fn::String path = root.file("Passwords.prefs");
  PasswordManagerGeneric manager(std::make_unique<WindowsEncryption>(), path);
  manager.setPassword("mail", "bob", SECRET);
  fn::String stored = storedText(path, "mail", "bob");
  EXPECT_EQ(fn::File(path).readAll().view().find(SECRET), std::string_view::npos);
  EXPECT_EQ(fn::ByteArray::fromBase64(stored).base64(72), stored) << "Base64 of the blob";
  PasswordManagerGeneric other(std::make_unique<WindowsEncryption>(), path);
  EXPECT_EQ(other.getPassword("mail", "bob"), SECRET);
  EXPECT_TRUE(log.linesOf("core.password").empty());

  WindowsEncryption encryption;
  fn::ByteArray tampered = fn::ByteArray::fromBase64(stored);
  tampered[tampered.size() - 5] ^= 1;
  for (fn::String const& bad : {blobOfAnotherKey(SECRET), tampered.base64(72)})
    EXPECT_EQ(encryption.decrypt(bad), "");
  EXPECT_EQ(encryption.decrypt("%%%"), "");
  auto lines = log.linesOf("core.password");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].text, "Could not decrypt password");
  EXPECT_EQ(lines[1].text, "Could not decrypt password");
  EXPECT_TRUE(lines[2].text.starts_with("Could not decrypt password: ")) << lines[2].text;
}

}  // namespace
}  // namespace core

// Passwords outside Windows: libsodium with a key file that is the user's alone.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "core/password_manager.h"
#include "core/sodium_encryption.h"
#include "foundation/byte_array.h"
#include "foundation/file.h"
#include "test_support.h"

namespace core {
namespace {

using testing::LogCapture;
using testing::TemporaryRoot;

constexpr std::string_view SECRET = "correct horse battery staple";

std::unique_ptr<PasswordManagerGeneric> sodiumManager(TemporaryRoot const& root,
                                                      std::string_view keyName = "key") {
  return std::make_unique<PasswordManagerGeneric>(
      std::make_unique<SodiumEncryption>(root.file(keyName)), root.file("Passwords.prefs"));
}

TEST(PasswordManager, SecretsDoNotDecryptWithAnotherKeyOrFromBadText) {
  TemporaryRoot root;
  auto manager = sodiumManager(root);
  manager->setPassword("mail", "bob", SECRET);
  // The key is the user's alone.
  struct stat key {};
  ASSERT_EQ(::stat(root.file("key").c_str(), &key), 0);
  EXPECT_EQ(key.st_mode & 0777, 0600u);

  LogCapture log;
  // A stranger without a key yet, then with one of its own.
  auto stranger = sodiumManager(root, "other key");
  bool found = false;
  EXPECT_EQ(stranger->getPassword("mail", "bob", found), "");
  EXPECT_TRUE(found);
  stranger->setPassword("chat", "eve", "hers");
  EXPECT_EQ(stranger->getPassword("mail", "bob"), "");

  // Stored texts that are not Base64, or too short to be sealed, or tampered with.
  Preferences file(root.file("Passwords.prefs"));
  file.reload();
  fn::ByteArray tampered =
      fn::ByteArray::fromBase64(file.root().valueForPathIfExists("passwords.mail.bob").asString());
  tampered[30] ^= 1;
  auto& mail = file.root().mapForPath("passwords.mail");
  mail["notBase64"] = "%%%";
  mail["short"] = "AAAA";
  mail["tampered"] = tampered.base64(72);
  mail["number"] = 5;
  file.save();
  for (auto account : {"notBase64", "short", "tampered", "number"})
    EXPECT_EQ(manager->getPassword("mail", account), "") << account;
  EXPECT_EQ(manager->getPassword("mail", "bob"), SECRET);

  // A key file others can read is made private again, with a warning, and goes on working.
  ASSERT_EQ(::chmod(root.file("key").c_str(), 0644), 0);
  EXPECT_EQ(sodiumManager(root)->getPassword("mail", "bob"), SECRET);
  ASSERT_EQ(::stat(root.file("key").c_str(), &key), 0);
  EXPECT_EQ(key.st_mode & 0777, 0600u);
  auto warnings = log.matching("could be read by others (mode 0644); it is private now (0600)");
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_EQ(warnings[0].priority, fn::logging::WRN);

  // A key of the wrong size cannot be mended: every use says why, and a failed encryption
  // stores the empty string.
  fn::File(root.file("key")).writeAll(fn::ByteArray(16, 1));
  auto fresh = sodiumManager(root);
  EXPECT_EQ(fresh->getPassword("mail", "bob"), "");
  fresh->setPassword("mail", "carol", "secret");
  file.reload();
  EXPECT_EQ(file.root().valueForPathIfExists("passwords.mail.carol"), fn::Value(""));

  // One error line per failure, with the reason where there is one (its path left out).
  std::vector<fn::String> errors;
  for (auto const& line : log.linesOf("core.password")) {
    if (line.priority == fn::logging::ERR)
      errors.push_back(line.text.substr(0, line.text.find(" [path ")));
  }
  fn::String const failed = "Could not decrypt password";
  fn::String const wrongSize =
      "FileException: The password key file has the wrong size (16 bytes, not 32)";
  EXPECT_EQ(errors, (std::vector<fn::String>{
                        failed + ": FileException: There is no password key", failed,
                        failed + ": DataFormatException: Invalid Base64 (at character 0 of 3)",
                        failed, failed, failed, failed + ": " + wrongSize,
                        "Could not encrypt password: " + wrongSize}));
}

}  // namespace
}  // namespace core

// Passwords outside Windows: libsodium with a key file that is the user's alone.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

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

nlohmann::json storedFile(fn::String const& path) {
  return nlohmann::json::parse("{" + std::string(fn::File(path).readAll().view()) + "}");
}

TEST(PasswordManager, SecretsDoNotDecryptWithAnotherKeyOrFromBadText) {
  TemporaryRoot root;
  auto manager = sodiumManager(root);
  manager->setPassword("mail", "bob", SECRET);
  // The key is the user's alone.
  struct stat key {};
  ASSERT_EQ(::stat(root.file("key").c_str(), &key), 0);
  EXPECT_EQ(key.st_mode & 0777, 0600u);
  EXPECT_EQ(key.st_size, 32);

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
  EXPECT_EQ(storedFile(root.file("Passwords.prefs"))["passwords"]["mail"]["carol"], "");

  // One error line per failure, with the reason where there is one.
  std::vector<fn::String> starts(8, "Could not decrypt password");
  starts[0] = starts[6] = "Could not decrypt password: ";
  starts[7] = "Could not encrypt password: ";
  auto lines = log.linesOf("core.password");
  std::erase_if(lines, [](auto const& line) { return line.priority != fn::logging::ERR; });
  ASSERT_EQ(lines.size(), starts.size());
  for (size_t i = 0; i < lines.size(); ++i)
    EXPECT_TRUE(lines[i].text.starts_with(starts[i])) << lines[i].text;
  EXPECT_EQ(lines[1].text, "Could not decrypt password");
  for (size_t i : {6, 7})
    EXPECT_NE(lines[i].text.find("has the wrong size (16 bytes, not 32)"), fn::String::npos);
}

}  // namespace
}  // namespace core

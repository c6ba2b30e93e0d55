#include "core/password_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "core/sodium_encryption.h"
#include "foundation/byte_array.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/path_manager.h"
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

TEST(PasswordManager, StoresSecretsEncryptedPerServiceAndAccount) {
  TemporaryRoot root;
  LogCapture log;
  auto manager = sodiumManager(root);
  bool found = true;
  EXPECT_EQ(manager->getPassword("mail", "bob", found), "");
  EXPECT_FALSE(found);
  manager->setPassword("mail", "bob", SECRET);
  manager->setPassword("chat", "bob", "");

  fn::String path = root.file("Passwords.prefs");
  EXPECT_EQ(fn::File(path).readAll().view().find(SECRET), std::string_view::npos);
  auto stored = storedFile(path)["passwords"]["mail"]["bob"];

  // Another manager (another process, as far as the file is concerned) sees everything, and
  // encrypting the same secret again gives another text (a fresh nonce).
  auto other = sodiumManager(root);
  EXPECT_EQ(other->getPassword("mail", "bob"), SECRET);
  EXPECT_EQ(other->getPassword("chat", "bob", found), "");
  EXPECT_TRUE(found);
  other->setPassword("mail", "bob", SECRET);
  EXPECT_NE(storedFile(path)["passwords"]["mail"]["bob"], stored);
  EXPECT_EQ(manager->getPassword("mail", "bob"), SECRET);
  EXPECT_TRUE(log.linesOf("core.password").empty());

  // Removing keeps the emptied service.
  manager->removePassword("chat", "bob");
  EXPECT_EQ(storedFile(path)["passwords"]["chat"], nlohmann::json::object());

  // The key is the user's alone.
  struct stat key {};
  ASSERT_EQ(::stat(root.file("key").c_str(), &key), 0);
  EXPECT_EQ(key.st_mode & 0777, 0600u);
  EXPECT_EQ(key.st_size, 32);
}

TEST(PasswordManager, SecretsDoNotDecryptWithAnotherKeyOrFromBadText) {
  TemporaryRoot root;
  auto manager = sodiumManager(root);
  manager->setPassword("mail", "bob", SECRET);

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
  struct stat key {};
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

TEST(PasswordManager, TheTagOfTheFileFormatNamesNoServiceOrAccount) {
  TemporaryRoot root;
  auto manager = sodiumManager(root);
  manager->setPassword("mail", "bob", SECRET);
  fn::String before(fn::File(root.file("Passwords.prefs")).readAll().view());
  for (auto [service, account] :
       {std::pair{"__type__", "bob"}, {"mail", "__type__"}, {"mail.__type__", "bob"}}) {
    EXPECT_THROW(manager->setPassword(service, account, "x"), fn::IllegalArgumentException);
    EXPECT_THROW(manager->getPassword(service, account), fn::IllegalArgumentException);
    EXPECT_THROW(manager->removePassword(service, account), fn::IllegalArgumentException);
  }
  // Nothing was written: a fresh process still finds every secret.
  EXPECT_EQ(fn::String(fn::File(root.file("Passwords.prefs")).readAll().view()), before);
  EXPECT_EQ(sodiumManager(root)->getPassword("mail", "bob"), SECRET);
}

TEST(PasswordManager, ACorruptFileIsReplacedOnlyWhenReading) {
  TemporaryRoot root;
  fn::String path = root.file("Passwords.prefs");
  fn::ByteArray garbage(std::string_view("\"passwords\": {\"mail\": "));
  fn::File(path).writeAll(garbage);

  auto manager = sodiumManager(root);
  EXPECT_THROW(manager->setPassword("mail", "bob", SECRET), fn::DataFormatException);
  EXPECT_THROW(manager->removePassword("mail", "bob"), fn::DataFormatException);
  EXPECT_EQ(fn::File(path).readAll(), garbage);

  // Reading replaces it with what this manager knows: nothing, in a fresh one.
  EXPECT_EQ(manager->getPassword("mail", "bob"), "");
  EXPECT_TRUE(fn::File(path).readAll().empty());
  manager->setPassword("mail", "bob", SECRET);

  // A manager that read the file before it broke writes back its last view.
  fn::File(path).writeAll(garbage);
  EXPECT_EQ(manager->getPassword("mail", "bob"), SECRET);
  EXPECT_EQ(sodiumManager(root)->getPassword("mail", "bob"), SECRET);

  // Errors other than bad content propagate.
  fn::File(path).remove();
  fn::File(path).createDirectories();
  EXPECT_THROW(manager->getPassword("mail", "bob"), fn::FileException);
}

TEST(PasswordManager, ThePassThroughEncryptionStoresPlainTextTheSharedInstanceDoesNot) {
  TemporaryRoot root;
  PasswordManagerGeneric plain(std::make_unique<Encryption>(), root.file("Plain.prefs"));
  plain.setPassword("mail", "bob", SECRET);
  EXPECT_EQ(storedFile(root.file("Plain.prefs"))["passwords"]["mail"]["bob"], SECRET);
  // The shared instance encrypts, in the user data directory.
  PasswordManager& shared = PasswordManager::instance();
  shared.setPassword("mail", "bob", SECRET);
  fn::String directory = fn::PathManager::instance().getPath(fn::PathManager::USER_DATA);
  EXPECT_EQ(fn::File(directory + "/Passwords.prefs").readAll().view().find(SECRET),
            std::string_view::npos);
  EXPECT_TRUE(fn::File(directory + "/Passwords.key").exists());
  EXPECT_EQ(shared.getPassword("mail", "bob"), SECRET);
}

}  // namespace
}  // namespace core

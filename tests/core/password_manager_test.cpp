#include "core/password_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

ino_t inodeOf(fn::String const& path) {
  struct stat info {};
  EXPECT_EQ(::stat(path.c_str(), &info), 0);
  return info.st_ino;
}

bool contains(fn::ByteArray const& bytes, std::string_view text) {
  return bytes.view().find(text) != std::string_view::npos;
}

TEST(PasswordManager, StoresSecretsEncryptedPerServiceAndAccount) {
  TemporaryRoot root;
  LogCapture log;
  auto manager = sodiumManager(root);
  bool found = true;
  EXPECT_EQ(manager->getPassword("mail", "bob", found), "");
  EXPECT_FALSE(found);
  EXPECT_EQ(manager->getPassword("mail", "bob"), "");

  manager->setPassword("mail", "bob", SECRET);
  manager->setPassword("mail", "alice", "x");
  manager->setPassword("chat", "bob", "");

  fn::ByteArray bytes = fn::File(root.file("Passwords.prefs")).readAll();
  EXPECT_FALSE(contains(bytes, SECRET));
  auto json = storedFile(root.file("Passwords.prefs"));
  ASSERT_TRUE(json["passwords"]["mail"]["bob"].is_string());
  auto stored = json["passwords"]["mail"]["bob"].get<std::string>();
  fn::ByteArray sealed = fn::ByteArray::fromBase64(stored);
  // Nonce, ciphertext of the same length as the secret, authentication tag.
  EXPECT_EQ(sealed.size(), 24 + SECRET.size() + 16);
  EXPECT_FALSE(contains(sealed, SECRET));

  // Another manager (another process, as far as the file is concerned) sees everything.
  auto other = sodiumManager(root);
  EXPECT_EQ(other->getPassword("mail", "bob", found), SECRET);
  EXPECT_TRUE(found);
  EXPECT_EQ(other->getPassword("mail", "alice"), "x");
  EXPECT_EQ(other->getPassword("chat", "bob", found), "");
  EXPECT_TRUE(found);
  EXPECT_EQ(other->getPassword("chat", "alice", found), "");
  EXPECT_FALSE(found);

  // Encrypting the same secret twice gives different texts (fresh nonces).
  other->setPassword("mail", "bob", SECRET);
  EXPECT_NE(storedFile(root.file("Passwords.prefs"))["passwords"]["mail"]["bob"], stored);
  EXPECT_EQ(manager->getPassword("mail", "bob"), SECRET);
  EXPECT_TRUE(log.linesOf("core.password").empty());

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
  auto stranger = sodiumManager(root, "other key");
  // The stranger has no key yet, then one of its own.
  bool found = false;
  EXPECT_EQ(stranger->getPassword("mail", "bob", found), "");
  EXPECT_TRUE(found);
  stranger->setPassword("chat", "eve", "hers");
  EXPECT_EQ(stranger->getPassword("mail", "bob", found), "");
  EXPECT_TRUE(found);
  EXPECT_EQ(manager->getPassword("chat", "eve", found), "");
  EXPECT_TRUE(found);
  auto lines = log.linesOf("core.password");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(lines[0].text.starts_with("Could not decrypt password: ")) << lines[0].text;
  EXPECT_EQ(lines[1].text, "Could not decrypt password");
  EXPECT_EQ(lines[2].text, "Could not decrypt password");
  for (auto const& line : lines)
    EXPECT_EQ(line.priority, fn::logging::ERR);

  // Stored texts that are not Base64, or too short to be sealed, or tampered with.
  Preferences file(root.file("Passwords.prefs"));
  file.reload();
  fn::String sealed = file.root().valueForPathIfExists("passwords.mail.bob").asString();
  fn::ByteArray tampered = fn::ByteArray::fromBase64(sealed);
  tampered[30] ^= 1;
  auto& mail = file.root().mapForPath("passwords.mail");
  mail["notBase64"] = "%%%";
  mail["short"] = "AAAA";
  mail["tampered"] = tampered.base64(72);
  mail["number"] = 5;
  file.save();
  for (auto account : {"notBase64", "short", "tampered", "number"}) {
    LogCapture one;
    EXPECT_EQ(manager->getPassword("mail", account, found), "") << account;
    EXPECT_TRUE(found);
    auto logged = one.linesOf("core.password");
    ASSERT_EQ(logged.size(), 1u) << account;
    EXPECT_TRUE(logged[0].text.starts_with("Could not decrypt password")) << logged[0].text;
  }
  EXPECT_EQ(manager->getPassword("mail", "bob"), SECRET);
}

TEST(PasswordManager, AKeyFileOthersCanReadIsRefused) {
  TemporaryRoot root;
  auto manager = sodiumManager(root);
  manager->setPassword("mail", "bob", SECRET);
  ASSERT_EQ(::chmod(root.file("key").c_str(), 0644), 0);

  LogCapture log;
  auto fresh = sodiumManager(root);
  EXPECT_EQ(fresh->getPassword("mail", "bob"), "");
  fresh->setPassword("mail", "carol", "secret");
  auto lines = log.linesOf("core.password");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].text.starts_with("Could not decrypt password: "));
  EXPECT_TRUE(lines[1].text.starts_with("Could not encrypt password: "));
  EXPECT_NE(lines[1].text.find("0600"), fn::String::npos);
  // A failed encryption stores the empty string.
  EXPECT_EQ(storedFile(root.file("Passwords.prefs"))["passwords"]["mail"]["carol"], "");
}

TEST(PasswordManager, RemovingRewritesTheFileAndKeepsEmptyServices) {
  TemporaryRoot root;
  auto manager = sodiumManager(root);
  fn::String path = root.file("Passwords.prefs");
  manager->setPassword("mail", "bob", SECRET);

  // A second name keeps the old inode in use, so a rewrite cannot get its number back.
  fn::String witness = root.file("witness");
  ASSERT_EQ(::link(path.c_str(), witness.c_str()), 0);
  manager->removePassword("mail", "nobody");
  EXPECT_NE(inodeOf(path), inodeOf(witness));
  fn::File(witness).remove();
  ASSERT_EQ(::link(path.c_str(), witness.c_str()), 0);
  manager->removePassword("nothing", "nobody");
  EXPECT_NE(inodeOf(path), inodeOf(witness));
  EXPECT_EQ(manager->getPassword("mail", "bob"), SECRET);

  manager->removePassword("mail", "bob");
  bool found = true;
  EXPECT_EQ(manager->getPassword("mail", "bob", found), "");
  EXPECT_FALSE(found);
  EXPECT_EQ(storedFile(path), nlohmann::json::parse(R"({"passwords": {"mail": {}}})"));
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
  bool found = true;
  EXPECT_EQ(manager->getPassword("mail", "bob", found), "");
  EXPECT_FALSE(found);
  EXPECT_TRUE(fn::File(path).readAll().empty());
  manager->setPassword("mail", "bob", SECRET);
  EXPECT_EQ(manager->getPassword("mail", "bob"), SECRET);

  // A manager that read the file before it broke writes back its last view.
  fn::File(path).writeAll(garbage);
  EXPECT_EQ(manager->getPassword("mail", "bob", found), SECRET);
  EXPECT_TRUE(found);
  auto other = sodiumManager(root);
  EXPECT_EQ(other->getPassword("mail", "bob"), SECRET);

  // Errors other than bad content propagate.
  fn::File(path).remove();
  fn::File(path).createDirectories();
  EXPECT_THROW(manager->getPassword("mail", "bob"), fn::FileException);
}

TEST(PasswordManager, ThePassThroughEncryptionStoresPlainTextTheSharedInstanceDoesNot) {
  TemporaryRoot root;
  PasswordManagerGeneric manager(std::make_unique<Encryption>(), root.file("Plain.prefs"));
  manager.setPassword("mail", "bob", SECRET);
  EXPECT_EQ(
      storedFile(root.file("Plain.prefs")),
      nlohmann::json::parse(R"({"passwords": {"mail": {"bob": "correct horse battery staple"}}})"));
  EXPECT_EQ(manager.getPassword("mail", "bob"), SECRET);

  // The shared instance encrypts, in the user data directory.
  PasswordManager& shared = PasswordManager::instance();
  EXPECT_EQ(shared.getPassword("mail", "bob"), "");
  fn::String directory = fn::PathManager::instance().getPath(fn::PathManager::USER_DATA);
  EXPECT_FALSE(fn::File(directory + "/Passwords.prefs").exists());

  shared.setPassword("mail", "bob", SECRET);
  fn::ByteArray bytes = fn::File(directory + "/Passwords.prefs").readAll();
  EXPECT_FALSE(contains(bytes, SECRET));
  EXPECT_TRUE(fn::File(directory + "/Passwords.key").exists());
  EXPECT_EQ(shared.getPassword("mail", "bob"), SECRET);
}

}  // namespace
}  // namespace core

// Password storage as every platform has it: the file, its format and its failures, with the
// platform's own encryption (DPAPI on Windows, a libsodium key file elsewhere).
#include "core/password_manager.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/encryption.h"
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

nlohmann::json storedFile(fn::String const& path) {
  return nlohmann::json::parse("{" + std::string(fn::File(path).readAll().view()) + "}");
}

TEST(PasswordManager, StoresSecretsEncryptedPerServiceAndAccount) {
  TemporaryRoot root;
  LogCapture log;
  // The shared instance keeps its file in the user data directory, which its first secret
  // makes.
  PasswordManager& manager = PasswordManager::instance();
  fn::String directory = fn::PathManager::instance().getPath(fn::PathManager::USER_DATA);
  fn::String path = directory + "/Passwords.prefs";
  bool found = true;
  EXPECT_EQ(manager.getPassword("mail", "bob", found), "");
  EXPECT_FALSE(found);
  manager.setPassword("mail", "bob", SECRET);
  manager.setPassword("chat", "bob", "");
  EXPECT_EQ(fn::File(path).readAll().view().find(SECRET), std::string_view::npos);
  // Windows keeps the key with the user's account, not in a file.
  EXPECT_EQ(fn::File(directory + "/Passwords.key").exists(), !testing_support::isWindows());
  auto stored = storedFile(path)["passwords"]["mail"]["bob"];

  // Another manager (another process, as far as the file is concerned) sees everything, and
  // encrypting the same secret again gives another text (a fresh nonce).
  PasswordManagerGeneric other(Encryption::createPlatformDefault(), path);
  EXPECT_EQ(other.getPassword("mail", "bob"), SECRET);
  EXPECT_EQ(other.getPassword("chat", "bob", found), "");
  EXPECT_TRUE(found);
  other.setPassword("mail", "bob", SECRET);
  EXPECT_NE(storedFile(path)["passwords"]["mail"]["bob"], stored);
  EXPECT_EQ(manager.getPassword("mail", "bob"), SECRET);
  EXPECT_TRUE(log.linesOf("core.password").empty());

  // Removing keeps the emptied service.
  manager.removePassword("chat", "bob");
  EXPECT_EQ(storedFile(path)["passwords"]["chat"], nlohmann::json::object());
}

TEST(PasswordManager, ACorruptFileIsReplacedOnlyWhenReadingAndReservedNamesNeverReachIt) {
  TemporaryRoot root;
  fn::String path = root.file("Passwords.prefs");
  fn::ByteArray garbage(std::string_view("\"passwords\": {\"mail\": "));
  fn::File(path).writeAll(garbage);

  PasswordManagerGeneric manager(Encryption::createPlatformDefault(), path);
  EXPECT_THROW(manager.setPassword("mail", "bob", SECRET), fn::DataFormatException);
  EXPECT_THROW(manager.removePassword("mail", "bob"), fn::DataFormatException);
  EXPECT_EQ(fn::File(path).readAll(), garbage);

  // Reading replaces it with what this manager knows: nothing, in a fresh one.
  EXPECT_EQ(manager.getPassword("mail", "bob"), "");
  EXPECT_TRUE(fn::File(path).readAll().empty());
  manager.setPassword("mail", "bob", SECRET);

  // A manager that read the file before it broke writes back its last view.
  fn::File(path).writeAll(garbage);
  EXPECT_EQ(manager.getPassword("mail", "bob"), SECRET);

  // The tag of the file format names no service or account: the file would not read back, and
  // the next reader would replace it. Nothing is written, and a fresh process still finds every
  // secret.
  fn::ByteArray before = fn::File(path).readAll();
  for (auto [service, account] :
       {std::pair{"__type__", "bob"}, {"mail", "__type__"}, {"mail.__type__", "bob"}}) {
    EXPECT_THROW(manager.setPassword(service, account, "x"), fn::IllegalArgumentException);
    EXPECT_THROW(manager.getPassword(service, account), fn::IllegalArgumentException);
    EXPECT_THROW(manager.removePassword(service, account), fn::IllegalArgumentException);
  }
  EXPECT_EQ(fn::File(path).readAll(), before);
  EXPECT_EQ(
      PasswordManagerGeneric(Encryption::createPlatformDefault(), path).getPassword("mail", "bob"),
      SECRET);

  // Errors other than bad content propagate.
  fn::File(path).remove();
  fn::File(path).createDirectories();
  EXPECT_THROW(manager.getPassword("mail", "bob"), fn::FileException);
}

}  // namespace
}  // namespace core

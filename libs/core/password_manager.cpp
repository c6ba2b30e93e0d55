#include "core/password_manager.h"

#include <algorithm>
#include <filesystem>

#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/path_manager.h"

namespace core {
namespace {

fn::String servicePath(std::string_view service) {
  return fn::String("passwords." + fn::String(service));
}

// A member named like the tag of the preferences format would make the file read back as a
// tagged value, or fail to read, and the next reader would replace the file with what it knows:
// every secret would be gone. Such names are refused before anything is read or written.
void checkNames(std::string_view service, std::string_view account) {
  constexpr std::string_view TAG = "__type__";
  bool reserved = account == TAG;
  for (size_t start = 0; start <= service.size() && !reserved;) {
    size_t end = std::min(service.find('.', start), service.size());
    reserved = service.substr(start, end - start) == TAG;
    start = end + 1;
  }
  if (reserved) {
    throw fn::IllegalArgumentException(
        fmt::format("\"{}\" is reserved in the password file and cannot name a service or an "
                    "account (service \"{}\", account \"{}\")",
                    TAG, service, account));
  }
}

}  // namespace

PasswordManager::~PasswordManager() = default;

fn::String PasswordManager::getPassword(std::string_view service, std::string_view account) {
  bool found = false;
  return getPassword(service, account, found);
}

PasswordManager& PasswordManager::instance() {
  // Unlike "Instance.prefs", the directory is not created here: on this path, only storing a
  // secret (which creates the key beside the file) needs it.
  static PasswordManager* manager = new PasswordManagerGeneric(
      Encryption::createPlatformDefault(),
      fn::PathManager::instance().getPath(fn::PathManager::USER_DATA, FILE_NAME, false));
  return *manager;
}

PasswordManagerGeneric::PasswordManagerGeneric(std::unique_ptr<Encryption> encryption,
                                               fn::String path)
    : _encryption(std::move(encryption)),
      _preferences(std::move(path)) {}

PasswordManagerGeneric::~PasswordManagerGeneric() = default;

void PasswordManagerGeneric::setPassword(std::string_view service,
                                         std::string_view account,
                                         std::string_view password) {
  checkNames(service, account);
  _preferences.reload();
  fn::Value& group = _preferences.root().mapForPath(servicePath(service));
  group[fn::Value(account)] = fn::Value(_encryption->encrypt(password));
  // The first secret of a fresh profile makes the directory, which nothing asked for so far
  // (the path was taken without creating it); the key file does that elsewhere, DPAPI keeps
  // none.
  auto directory = std::filesystem::path(std::string(_preferences.path())).parent_path();
  if (!directory.empty())
    fn::File(fn::String(directory.generic_string())).createDirectories(0700);
  _preferences.save();
}

fn::String PasswordManagerGeneric::getPassword(std::string_view service,
                                               std::string_view account,
                                               bool& found) {
  checkNames(service, account);
  try {
    _preferences.reload();
  } catch (fn::DataFormatException const&) {
    _preferences.save();
  }
  fn::Value const& group = _preferences.root().valueForPathIfExists(servicePath(service));
  fn::Value key(account);
  if (group.isMap() && group.contains(key)) {
    found = true;
    fn::Value const& stored = group.at(key);
    // Anything but text cannot be a stored secret; decrypt() reports it like a bad one.
    return _encryption->decrypt(stored.isString() ? std::string_view(stored.asString())
                                                  : std::string_view());
  }
  found = false;
  return {};
}

void PasswordManagerGeneric::removePassword(std::string_view service, std::string_view account) {
  checkNames(service, account);
  _preferences.reload();
  fn::Value const& group = _preferences.root().valueForPathIfExists(servicePath(service));
  if (group.isMap() && group.contains(fn::Value(account)))
    _preferences.root().mapForPath(servicePath(service)).erase(fn::Value(account));
  _preferences.save();
}

}  // namespace core

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/sodium_encryption.h"
#include "foundation/byte_array.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/logging/category.h"
#include "foundation/path_manager.h"
#include "foundation/uuid.h"

namespace core {
namespace {

fn::logging::Category log_("core.password");

constexpr size_t NONCE_SIZE = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr size_t TAG_SIZE = crypto_aead_xchacha20poly1305_ietf_ABYTES;
constexpr size_t BASE64_LINE_WIDTH = 72;

static_assert(crypto_aead_xchacha20poly1305_ietf_KEYBYTES == SodiumEncryption::KEY_SIZE);

[[noreturn]] void fail(char const* what, fn::String const& path, int error) {
  throw fn::withErrno(
      fn::withPath(fn::FileException(fmt::format("{} failed: {}", what, strerror(error))), path),
      error);
}

class Descriptor {
public:
  explicit Descriptor(int fd) : _fd(fd) {}
  ~Descriptor() {
    if (_fd >= 0)
      ::close(_fd);
  }
  Descriptor(Descriptor const&) = delete;
  Descriptor& operator=(Descriptor const&) = delete;
  int get() const { return _fd; }

private:
  int _fd;
};

void ensureSodium() {
  if (sodium_init() < 0)
    throw fn::RuntimeException("libsodium cannot be initialised");
}

}  // namespace

std::unique_ptr<Encryption> Encryption::createPlatformDefault() {
  return std::make_unique<SodiumEncryption>();
}

SodiumEncryption::SodiumEncryption()
    : SodiumEncryption(
          fn::PathManager::instance().getPath(fn::PathManager::USER_DATA, KEY_FILE_NAME, false)) {}

SodiumEncryption::SodiumEncryption(fn::String keyPath) : _keyPath(std::move(keyPath)) {}

SodiumEncryption::~SodiumEncryption() {
  sodium_memzero(_key.data(), _key.size());
}

fn::String SodiumEncryption::encrypt(std::string_view plain) {
  try {
    ensureSodium();
    auto const& secretKey = key(true);
    fn::ByteArray sealed(NONCE_SIZE + plain.size() + TAG_SIZE);
    randombytes_buf(sealed.data(), NONCE_SIZE);
    unsigned long long length = 0;
    if (crypto_aead_xchacha20poly1305_ietf_encrypt(
            sealed.data() + NONCE_SIZE, &length, reinterpret_cast<uint8_t const*>(plain.data()),
            plain.size(), nullptr, 0, nullptr, sealed.data(), secretKey.data()) != 0) {
      log_.log(fn::logging::ERR, "Could not encrypt password");
      return {};
    }
    sealed.resize(NONCE_SIZE + length);
    return sealed.base64(BASE64_LINE_WIDTH);
  } catch (fn::Exception const& e) {
    log_.log(fn::logging::ERR, "Could not encrypt password: {}", e.toString());
    return {};
  }
}

fn::String SodiumEncryption::decrypt(std::string_view stored) {
  try {
    fn::ByteArray sealed = fn::ByteArray::fromBase64(stored);
    ensureSodium();
    auto const& secretKey = key(false);
    if (sealed.size() < NONCE_SIZE + TAG_SIZE) {
      log_.log(fn::logging::ERR, "Could not decrypt password");
      return {};
    }
    fn::String plain(sealed.size() - NONCE_SIZE - TAG_SIZE, '\0');
    unsigned long long length = 0;
    if (crypto_aead_xchacha20poly1305_ietf_decrypt(
            reinterpret_cast<uint8_t*>(plain.data()), &length, nullptr, sealed.data() + NONCE_SIZE,
            sealed.size() - NONCE_SIZE, nullptr, 0, sealed.data(), secretKey.data()) != 0) {
      log_.log(fn::logging::ERR, "Could not decrypt password");
      return {};
    }
    plain.resize(length);
    return plain;
  } catch (fn::Exception const& e) {
    log_.log(fn::logging::ERR, "Could not decrypt password: {}", e.toString());
    return {};
  }
}

std::array<uint8_t, SodiumEncryption::KEY_SIZE> const& SodiumEncryption::key(bool create) {
  std::lock_guard lock(_mutex);
  if (_haveKey)
    return _key;
  if (!readKeyFile()) {
    if (!create)
      throw fn::withPath(fn::FileException("There is no password key"), _keyPath);
    createKeyFile();
    // Another process may have won the race to create it: its key is the one to use.
    if (!readKeyFile())
      throw fn::withPath(fn::FileException("The password key could not be created"), _keyPath);
  }
  _haveKey = true;
  return _key;
}

bool SodiumEncryption::readKeyFile() {
  Descriptor fd(::open(_keyPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (fd.get() < 0) {
    if (errno == ENOENT)
      return false;
    fail("open", _keyPath, errno);
  }
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0)
    fail("fstat", _keyPath, errno);
  // Refusing the key would make every stored secret unreadable and every new one empty: what
  // can be mended is, the rest is reported with its reason at every use.
  if (!S_ISREG(info.st_mode))
    throw fn::withPath(fn::FileException("The password key file is not a regular file"), _keyPath);
  if (info.st_uid != ::getuid()) {
    throw fn::withPath(fn::FileException(fmt::format(
                           "The password key file belongs to another user (uid {})", info.st_uid)),
                       _keyPath);
  }
  if (info.st_size != static_cast<off_t>(KEY_SIZE)) {
    throw fn::withPath(
        fn::FileException(fmt::format("The password key file has the wrong size ({} bytes, not {})",
                                      info.st_size, KEY_SIZE)),
        _keyPath);
  }
  if ((info.st_mode & 077) != 0) {
    if (::fchmod(fd.get(), 0600) != 0)
      fail("fchmod", _keyPath, errno);
    log_.log(fn::logging::WRN,
             "The password key file {} could be read by others (mode {:04o}); it is private now "
             "(0600)",
             _keyPath, info.st_mode & 07777);
  }
  size_t done = 0;
  while (done < KEY_SIZE) {
    ssize_t n = ::read(fd.get(), _key.data() + done, KEY_SIZE - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      fail("read", _keyPath, n < 0 ? errno : EIO);
    done += static_cast<size_t>(n);
  }
  return true;
}

void SodiumEncryption::createKeyFile() {
  fn::File directory(fn::File(_keyPath).directory());
  directory.createDirectories(0700);
  // The key is written completely under a temporary name and then linked into place, which
  // fails if the key exists: a reader never sees a partial key and two processes that
  // create one at once end up sharing the first.
  fn::String temporary(_keyPath + "-" +
                       fn::UUIDGenerator::defaultGenerator().createOne().toString() + ".tmp");
  std::array<uint8_t, KEY_SIZE> fresh;
  randombytes_buf(fresh.data(), fresh.size());
  {
    Descriptor fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd.get() < 0)
      fail("open", temporary, errno);
    ssize_t n;
    do {
      n = ::write(fd.get(), fresh.data(), fresh.size());
    } while (n < 0 && errno == EINTR);
    int error = n < 0 ? errno : EIO;
    sodium_memzero(fresh.data(), fresh.size());
    bool written = n == static_cast<ssize_t>(KEY_SIZE);
    if (written && ::fsync(fd.get()) != 0) {
      written = false;
      error = errno;
    }
    if (!written) {
      ::unlink(temporary.c_str());
      fail("write", temporary, error);
    }
  }
  int linked = ::link(temporary.c_str(), _keyPath.c_str());
  int error = errno;
  ::unlink(temporary.c_str());
  if (linked != 0 && error != EEXIST)
    fail("link", _keyPath, error);
  directory.sync();
}

}  // namespace core

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/exception.h"
#include "foundation/file.h"

namespace fn {
void throwFileError(char const* what, String const& path, int error) {
  throw withErrno(
      withPath(FileException(fmt::format("{} failed: {}", what, strerror(error))), path), error);
}

bool File::exists() const {
  struct stat info;
  return ::lstat(_path.c_str(), &info) == 0;
}

bool File::isDirectory() const {
  struct stat info;
  return ::stat(_path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

void File::remove() const {
  if (::unlink(_path.c_str()) != 0 && errno != ENOENT)
    throwFileError("remove", _path, errno);
}

void File::moveTo(String const& target) const {
  if (::rename(_path.c_str(), target.c_str()) != 0)
    throwFileError("rename", _path, errno);
}

void File::createDirectories(unsigned mode) const {
  if (_path.empty() || isDirectory())
    return;
  File(directory()).createDirectories(mode);
  if (::mkdir(_path.c_str(), mode) != 0 && errno != EEXIST)
    throwFileError("mkdir", _path, errno);
}

ByteArray File::readAll() const {
  int fd = ::open(_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    throwFileError("open", _path, errno);
  ByteArray bytes;
  uint8_t chunk[16384];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      int error = errno;
      ::close(fd);
      throwFileError("read", _path, error);
    }
    if (n == 0)
      break;
    bytes.append(chunk, static_cast<size_t>(n));
  }
  ::close(fd);
  return bytes;
}

void File::writeAll(ByteArray const& bytes, unsigned mode) const {
  int fd = ::open(_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0)
    throwFileError("open", _path, errno);
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      int error = errno;
      ::close(fd);
      throwFileError("write", _path, error);
    }
    done += static_cast<size_t>(n);
  }
  if (::close(fd) != 0)
    throwFileError("close", _path, errno);
}

void File::sync() const {
  int fd = ::open(_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    throwFileError("open", _path, errno);
  // EINVAL: the file system cannot sync this kind of file (some cannot for directories).
  while (::fsync(fd) != 0 && errno != EINVAL) {
    if (errno != EINTR) {
      int error = errno;
      ::close(fd);
      throwFileError("fsync", _path, error);
    }
  }
  ::close(fd);
}

String File::directory() const {
  auto slash = _path.rfind('/');
  if (slash == String::npos)
    return ".";
  if (slash == 0)
    return "/";
  return String(_path.substr(0, slash));
}

}  // namespace fn

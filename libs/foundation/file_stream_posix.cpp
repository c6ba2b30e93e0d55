#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/file_stream.h"

namespace fn {

FileOutputStream::FileOutputStream(String path, unsigned mode, Open open) : _path(std::move(path)) {
  int flags = open == Open::APPEND ? O_APPEND : O_TRUNC;
  _fd = ::open(_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, mode);
  if (_fd < 0)
    throwFileError("open", _path, errno);
}

FileOutputStream::~FileOutputStream() {
  if (_fd >= 0)
    ::close(_fd);
}

void FileOutputStream::write(void const* bytes, size_t count) {
  if (_fd < 0)
    throwFileError("write", _path, EBADF);
  auto const* p = static_cast<uint8_t const*>(bytes);
  while (count > 0) {
    ssize_t n = ::write(_fd, p, count);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      throwFileError("write", _path, errno);
    p += n;
    count -= static_cast<size_t>(n);
  }
}

void FileOutputStream::close() {
  if (_fd < 0)
    return;
  int fd = _fd;
  _fd = -1;
  // Linux closes the descriptor even when close() reports EINTR, so it is never retried.
  if (::close(fd) != 0 && errno != EINTR)
    throwFileError("close", _path, errno);
}

void FileOutputStream::sync() {
  if (_fd < 0)
    throwFileError("fsync", _path, EBADF);
  while (::fsync(_fd) != 0) {
    if (errno != EINTR)
      throwFileError("fsync", _path, errno);
  }
}

uint64_t FileOutputStream::size() const {
  struct stat info {};
  if (_fd < 0 || ::fstat(_fd, &info) != 0)
    throwFileError("fstat", _path, _fd < 0 ? EBADF : errno);
  return static_cast<uint64_t>(info.st_size);
}

FileInputStream::FileInputStream(String path, bool regularOnly) : _path(std::move(path)) {
  // Opening a FIFO for reading waits for a writer unless it is non-blocking; for a regular
  // file the flag changes nothing.
  _fd = ::open(_path.c_str(), O_RDONLY | O_CLOEXEC | (regularOnly ? O_NONBLOCK : 0));
  if (_fd < 0)
    throwFileError("open", _path, errno);
  if (!regularOnly)
    return;
  struct stat info {};
  if (::fstat(_fd, &info) != 0) {
    int error = errno;
    ::close(std::exchange(_fd, -1));
    throwFileError("fstat", _path, error);
  }
  if (!S_ISREG(info.st_mode)) {
    ::close(std::exchange(_fd, -1));
    throw withPath(FileException("Not a regular file"), _path);
  }
}

FileInputStream::~FileInputStream() {
  if (_fd >= 0)
    ::close(_fd);
}

size_t FileInputStream::read(void* bytes, size_t count) {
  for (;;) {
    ssize_t n = ::read(_fd, bytes, count);
    if (n >= 0)
      return static_cast<size_t>(n);
    if (errno != EINTR)
      throwFileError("read", _path, errno);
  }
}

int64_t FileInputStream::size() const {
  struct stat info;
  if (::fstat(_fd, &info) != 0)
    throwFileError("fstat", _path, errno);
  return info.st_size;
}

void FileInputStream::seek(int64_t offset) {
  if (::lseek(_fd, offset, SEEK_SET) < 0)
    throwFileError("lseek", _path, errno);
}

}  // namespace fn

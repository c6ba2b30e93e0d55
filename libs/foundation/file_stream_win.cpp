#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/file_stream.h"
#include "foundation/wide_string_win.h"

namespace fn {

FileOutputStream::FileOutputStream(String path, unsigned, Open open) : _path(std::move(path)) {
  int flags = open == Open::APPEND ? _O_APPEND : _O_TRUNC;
  _fd = ::_wopen(toWide(_path).c_str(), _O_WRONLY | _O_CREAT | _O_BINARY | _O_NOINHERIT | flags,
                 _S_IREAD | _S_IWRITE);
  if (_fd < 0)
    throwFileError("open", _path, errno);
}

FileOutputStream::~FileOutputStream() {
  if (_fd >= 0)
    ::_close(_fd);
}

void FileOutputStream::write(void const* bytes, size_t count) {
  if (_fd < 0)
    throwFileError("write", _path, EBADF);
  auto const* p = static_cast<uint8_t const*>(bytes);
  while (count > 0) {
    unsigned piece = count > (1u << 30) ? (1u << 30) : static_cast<unsigned>(count);
    int n = ::_write(_fd, p, piece);
    if (n < 0)
      throwFileError("write", _path, errno);
    p += n;
    count -= static_cast<size_t>(n);
  }
}

void FileOutputStream::close() {
  if (_fd < 0)
    return;
  if (::_close(std::exchange(_fd, -1)) != 0)
    throwFileError("close", _path, errno);
}

void FileOutputStream::sync() {
  if (_fd < 0)
    throwFileError("fsync", _path, EBADF);
  if (::_commit(_fd) != 0)
    throwFileError("fsync", _path, errno);
}

uint64_t FileOutputStream::size() const {
  struct _stat64 info {};
  if (_fd < 0 || ::_fstat64(_fd, &info) != 0)
    throwFileError("fstat", _path, _fd < 0 ? EBADF : errno);
  return static_cast<uint64_t>(info.st_size);
}

FileInputStream::FileInputStream(String path, bool regularOnly) : _path(std::move(path)) {
  _fd = ::_wopen(toWide(_path).c_str(), _O_RDONLY | _O_BINARY | _O_NOINHERIT);
  if (_fd < 0)
    throwFileError("open", _path, errno);
  if (!regularOnly)
    return;
  // A device or a pipe opened by name would block or never end.
  HANDLE handle = reinterpret_cast<HANDLE>(::_get_osfhandle(_fd));
  if (::GetFileType(handle) != FILE_TYPE_DISK) {
    ::_close(std::exchange(_fd, -1));
    throw withPath(FileException("Not a regular file"), _path);
  }
}

FileInputStream::~FileInputStream() {
  if (_fd >= 0)
    ::_close(_fd);
}

size_t FileInputStream::read(void* bytes, size_t count) {
  unsigned piece = count > (1u << 30) ? (1u << 30) : static_cast<unsigned>(count);
  int n = ::_read(_fd, bytes, piece);
  if (n < 0)
    throwFileError("read", _path, errno);
  return static_cast<size_t>(n);
}

int64_t FileInputStream::size() const {
  struct _stat64 info {};
  if (::_fstat64(_fd, &info) != 0)
    throwFileError("fstat", _path, errno);
  return info.st_size;
}

void FileInputStream::seek(int64_t offset) {
  if (::_lseeki64(_fd, offset, SEEK_SET) < 0)
    throwFileError("lseek", _path, errno);
}

}  // namespace fn

#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cerrno>

#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/wide_string_win.h"

namespace fn {

void throwFileError(char const* what, String const& path, int error) {
  throw withErrno(
      withPath(FileException(fmt::format("{} failed: {}", what, strerror(error))), path), error);
}

bool File::exists() const {
  return ::GetFileAttributesW(toWide(_path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool File::isDirectory() const {
  DWORD attributes = ::GetFileAttributesW(toWide(_path).c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

void File::remove() const {
  if (!::DeleteFileW(toWide(_path).c_str())) {
    DWORD error = ::GetLastError();
    if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
      throwFileError("remove", _path, isDirectory() ? EISDIR : errnoFromWindowsError(error));
  }
}

void File::moveTo(String const& target) const {
  // MOVEFILE_WRITE_THROUGH: the rename is on the disk when the call returns, which is what a
  // replace-by-rename save relies on.
  if (!::MoveFileExW(toWide(_path).c_str(), toWide(target).c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
    throwFileError("rename", _path, errnoFromWindowsError(::GetLastError()));
}

void File::createDirectories(unsigned) const {
  if (_path.empty() || isDirectory())
    return;
  String parent = directory();
  if (parent != _path)
    File(parent).createDirectories();
  if (!::CreateDirectoryW(toWide(_path).c_str(), nullptr) &&
      ::GetLastError() != ERROR_ALREADY_EXISTS)
    throwFileError("mkdir", _path, errnoFromWindowsError(::GetLastError()));
}

ByteArray File::readAll() const {
  int fd = ::_wopen(toWide(_path).c_str(), _O_RDONLY | _O_BINARY | _O_NOINHERIT);
  if (fd < 0)
    throwFileError("open", _path, errno);
  ByteArray bytes;
  uint8_t chunk[16384];
  for (;;) {
    int n = ::_read(fd, chunk, sizeof chunk);
    if (n < 0) {
      int error = errno;
      ::_close(fd);
      throwFileError("read", _path, error);
    }
    if (n == 0)
      break;
    bytes.append(chunk, static_cast<size_t>(n));
  }
  ::_close(fd);
  return bytes;
}

void File::writeAll(ByteArray const& bytes, unsigned) const {
  int fd =
      ::_wopen(toWide(_path).c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY | _O_NOINHERIT,
               _S_IREAD | _S_IWRITE);
  if (fd < 0)
    throwFileError("open", _path, errno);
  size_t done = 0;
  while (done < bytes.size()) {
    int n = ::_write(fd, bytes.data() + done, static_cast<unsigned>(bytes.size() - done));
    if (n < 0) {
      int error = errno;
      ::_close(fd);
      throwFileError("write", _path, error);
    }
    done += static_cast<size_t>(n);
  }
  if (::_close(fd) != 0)
    throwFileError("close", _path, errno);
}

void File::sync() const {
  // NTFS journals directory changes itself; only files are flushed.
  if (isDirectory())
    return;
  HANDLE file = ::CreateFileW(toWide(_path).c_str(), GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE)
    throwFileError("open", _path, errnoFromWindowsError(::GetLastError()));
  bool ok = ::FlushFileBuffers(file);
  DWORD error = ::GetLastError();
  ::CloseHandle(file);
  if (!ok)
    throwFileError("fsync", _path, errnoFromWindowsError(error));
}

String File::directory() const {
  auto slash = _path.find_last_of("/\\");
  if (slash == String::npos)
    return ".";
  // "C:\" and "\" are their own directories.
  if (slash == 0 || (slash == 2 && _path[1] == ':'))
    return String(_path.substr(0, slash + 1));
  return String(_path.substr(0, slash));
}

}  // namespace fn

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/named_mutex.h"
#include "foundation/runtime_directory.h"

namespace fn {
namespace {

// The name becomes one file name: a slash would point elsewhere.
String lockFileName(String name) {
  for (char& c : name) {
    if (c == '/')
      c = '_';
  }
  return runtimeDirectory() + "/" + name + ".lock";
}

}  // namespace

NamedMutex::NamedMutex(String const& name, bool exclusive) : _name(name) {
  String path = lockFileName(name);
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0)
    throw withErrno(withPath(IOException("Cannot open the lock file"), path), errno);
  if (!exclusive || ::flock(fd, LOCK_EX | LOCK_NB) == 0) {
    _native = fd;
    return;
  }
  int error = errno;
  ::close(fd);
  if (error == EWOULDBLOCK)
    throw withPath(NamedMutexAlreadyExistsException("The named mutex exists already"), path);
  throw withErrno(withPath(IOException("Cannot lock the lock file"), path), error);
}

NamedMutex::~NamedMutex() {
  // Closing the descriptor drops the lock; the file stays, since removing it could race with a
  // new holder that just opened it.
  if (_native >= 0)
    ::close(static_cast<int>(_native));
}

}  // namespace fn

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "core/console_capture_pipe.h"

namespace core::console_capture {

int duplicateUninherited(int fd) {
  return ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

bool createPipe(int fds[2]) {
  return ::pipe2(fds, O_CLOEXEC) == 0;
}

void redirect(int from, int to) {
  ::dup2(from, to);
}

void closeDescriptor(int fd) {
  ::close(fd);
}

int readByte(int fd, char& byte) {
  for (;;) {
    ssize_t count = ::read(fd, &byte, 1);
    if (count < 0 && errno == EINTR)
      continue;
    return static_cast<int>(count);
  }
}

void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0)
      return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

bool pipeEmpty(int fd) {
  int available = 0;
  return ::ioctl(fd, FIONREAD, &available) != 0 || available == 0;
}

void atProcessExit(void (*hook)()) {
  std::atexit(hook);
}

}  // namespace core::console_capture

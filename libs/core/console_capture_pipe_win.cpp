// The runtime library's descriptors over Windows handles. The capture pipe is made with a
// reserved size of 1 byte and the no-inherit mode (128), so child processes never hold its ends;
// the saved standard error is kept from them too.

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdlib>

#include "core/console_capture_pipe.h"

namespace core::console_capture {
namespace {

HANDLE handleOf(int fd) {
  return reinterpret_cast<HANDLE>(_get_osfhandle(fd));
}

}  // namespace

int duplicateUninherited(int fd) {
  int copy = _dup(fd);
  if (copy >= 0)
    SetHandleInformation(handleOf(copy), HANDLE_FLAG_INHERIT, 0);
  return copy;
}

bool createPipe(int fds[2]) {
  static_assert(_O_NOINHERIT == 128);
  return _pipe(fds, 1, 128) == 0;
}

void redirect(int from, int to) {
  _dup2(from, to);
}

void closeDescriptor(int fd) {
  _close(fd);
}

int readByte(int fd, char& byte) {
  return _read(fd, &byte, 1);
}

void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    int written = _write(fd, text.data(), static_cast<unsigned>(text.size()));
    if (written <= 0)
      return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

bool pipeEmpty(int fd) {
  DWORD available = 0;
  return !PeekNamedPipe(handleOf(fd), nullptr, 0, nullptr, &available, nullptr) || available == 0;
}

// A library's own atexit runs when the library is unloaded, after ExitProcess has ended every
// other thread, the reader among them: what it still held would be lost. The runtime library's
// table runs in exit(), while they all still run.
void atProcessExit(void (*hook)()) {
  using AtExit = int(__cdecl*)(void (*)());
  auto processAtExit = reinterpret_cast<AtExit>(
      reinterpret_cast<void (*)()>(GetProcAddress(GetModuleHandleW(L"msvcrt.dll"), "atexit")));
  if (!processAtExit || processAtExit(hook) != 0)
    std::atexit(hook);
}

}  // namespace core::console_capture

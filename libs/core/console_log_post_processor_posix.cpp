#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>

#include "core/console_log_post_processor.h"
#include "foundation/exception.h"

namespace core {
namespace {

// How long the exit waits for the reader to pass on what is still in the pipe.
constexpr auto DRAIN_AT_EXIT = std::chrono::seconds(2);

std::once_flag started;
std::atomic<bool> readerDone{false};
// The reader holds bytes it has not passed on yet.
std::atomic<bool> readerHolds{false};

bool pipeEmpty(int fd) {
  int available = 0;
  return ::ioctl(fd, FIONREAD, &available) != 0 || available == 0;
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

}  // namespace

void ConsoleLogPostProcessor::init() {
  std::call_once(started, [] {
    int saved = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    if (saved < 0)
      throw fn::withErrno(fn::IOException("Cannot duplicate standard error"), errno);
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
      int error = errno;
      ::close(saved);
      throw fn::withErrno(fn::IOException("Cannot create the standard error pipe"), error);
    }
    savedStandardError = saved;
    _pipe[0] = fds[0];
    _pipe[1] = fds[1];
    ::dup2(_pipe[1], STDERR_FILENO);
    try {
      std::thread(&ConsoleLogPostProcessor::runStandardError).detach();
    } catch (...) {
      // Nobody would drain the pipe: standard error goes back where it was.
      ::dup2(saved, STDERR_FILENO);
      ::close(fds[0]);
      ::close(fds[1]);
      ::close(saved);
      throw;
    }
    std::atexit(&ConsoleLogPostProcessor::restoreAtExit);
  });
}

void ConsoleLogPostProcessor::runStandardError() {
  fn::String pending;
  char byte = 0;
  for (;;) {
    ssize_t count = ::read(_pipe[0], &byte, 1);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 1)
      break;
    readerHolds.store(true, std::memory_order_release);
    pending += byte;
    if (byte == '\n') {
      processLine(std::exchange(pending, {}));
      readerHolds.store(false, std::memory_order_release);
    }
  }
  // What never got its line feed still goes out.
  if (!pending.empty())
    processLine(std::move(pending));
  readerDone.store(true, std::memory_order_release);
}

void ConsoleLogPostProcessor::processLine(fn::String line) {
  std::vector<StandardErrorCallback> callbacks;
  {
    std::lock_guard lock(_standardErrorCallbacksMutex);
    callbacks = _standardErrorCallbacks;
  }
  for (auto callback : callbacks)
    callback(line);
  if (!line.empty())
    writeAll(savedStandardError, line);
}

void ConsoleLogPostProcessor::restoreAtExit() {
  // Standard error points back where it was, so whatever is written after this (sanitizer
  // reports, the last lines of other exit handlers) goes out directly; once the pipe's write
  // ends are closed the reader sees its end and passes on the rest. Child processes may hold
  // a write end still, so an empty pipe and an idle reader, seen twice, end the wait too.
  ::dup2(savedStandardError, STDERR_FILENO);
  ::close(_pipe[1]);
  auto deadline = std::chrono::steady_clock::now() + DRAIN_AT_EXIT;
  int idle = 0;
  while (!readerDone.load(std::memory_order_acquire) && idle < 2 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    bool quiet = pipeEmpty(_pipe[0]) && !readerHolds.load(std::memory_order_acquire);
    idle = quiet ? idle + 1 : 0;
  }
}

}  // namespace core

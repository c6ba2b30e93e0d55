#include "core/console_log_post_processor.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "core/console_capture_pipe.h"
#include "foundation/exception.h"

namespace core {

using namespace console_capture;

namespace {

constexpr int STANDARD_ERROR = 2;
// How long the exit waits for the reader to pass on what is still in the pipe.
constexpr auto DRAIN_AT_EXIT = std::chrono::seconds(2);

std::once_flag started;
std::atomic<bool> readerDone{false};
// The reader holds bytes it has not passed on yet.
std::atomic<bool> readerHolds{false};

}  // namespace

std::vector<ConsoleLogPostProcessor::StandardErrorCallback>
    ConsoleLogPostProcessor::_standardErrorCallbacks;
std::mutex ConsoleLogPostProcessor::_standardErrorCallbacksMutex;
int ConsoleLogPostProcessor::_pipe[2] = {-1, -1};
int ConsoleLogPostProcessor::savedStandardError = -1;

void ConsoleLogPostProcessor::registerStandardErrorCallback(StandardErrorCallback callback) {
  std::lock_guard lock(_standardErrorCallbacksMutex);
  _standardErrorCallbacks.push_back(callback);
}

void ConsoleLogPostProcessor::unregisterStandardErrorCallback(StandardErrorCallback callback) {
  std::lock_guard lock(_standardErrorCallbacksMutex);
  std::erase(_standardErrorCallbacks, callback);
}

void ConsoleLogPostProcessor::init() {
  std::call_once(started, [] {
    int saved = duplicateUninherited(STANDARD_ERROR);
    if (saved < 0)
      throw fn::withErrno(fn::IOException("Cannot duplicate standard error"), errno);
    int fds[2];
    if (!createPipe(fds)) {
      int error = errno;
      closeDescriptor(saved);
      throw fn::withErrno(fn::IOException("Cannot create the standard error pipe"), error);
    }
    savedStandardError = saved;
    _pipe[0] = fds[0];
    _pipe[1] = fds[1];
    redirect(_pipe[1], STANDARD_ERROR);
    try {
      std::thread(&ConsoleLogPostProcessor::runStandardError).detach();
    } catch (...) {
      // Nobody would drain the pipe: standard error goes back where it was.
      redirect(saved, STANDARD_ERROR);
      closeDescriptor(fds[0]);
      closeDescriptor(fds[1]);
      closeDescriptor(saved);
      throw;
    }
    atProcessExit(&ConsoleLogPostProcessor::restoreAtExit);
  });
}

void ConsoleLogPostProcessor::runStandardError() {
  fn::String pending;
  char byte = 0;
  while (readByte(_pipe[0], byte) == 1) {
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
  redirect(savedStandardError, STANDARD_ERROR);
  closeDescriptor(_pipe[1]);
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

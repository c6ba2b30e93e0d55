#include "foundation/log_file_target.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <thread>
#include <vector>

#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/file_stream.h"

namespace fn {
namespace {

// Writes out what log files keep in memory: within FLUSH_DELAY of the first text that waits,
// and at exit. It holds the files that wait, so a file dropped meanwhile still gets written.
class Flusher {
public:
  static Flusher& instance() {
    // Never destroyed: its thread runs until the process ends.
    static Flusher* flusher = new Flusher();
    return *flusher;
  }

  void schedule(LogFileTarget* target) {
    std::lock_guard lock(_mutex);
    if (!_thread) {
      _thread = true;
      std::thread([this] { run(); }).detach();
      std::atexit([] { Flusher::instance().flushAll(); });
    }
    if (_waiting.empty())
      _deadline = std::chrono::steady_clock::now() +
                  std::chrono::microseconds(LogFileTarget::FLUSH_DELAY.totalMicroseconds());
    _waiting.emplace_back(target);
    _wake.notify_one();
  }

  void flushAll() {
    std::vector<WeakReference<LogFileTarget>> due;
    {
      std::lock_guard lock(_mutex);
      due.swap(_waiting);
    }
    for (auto& waiting : due) {
      if (auto target = waiting.lock())
        target->flush();
    }
  }

private:
  void run() {
    std::unique_lock lock(_mutex);
    for (;;) {
      _wake.wait(lock, [this] { return !_waiting.empty(); });
      if (_wake.wait_until(lock, _deadline, [] { return false; }))
        continue;
      lock.unlock();
      flushAll();
      lock.lock();
    }
  }

  std::mutex _mutex;
  std::condition_variable _wake;
  std::vector<WeakReference<LogFileTarget>> _waiting;
  std::chrono::steady_clock::time_point _deadline;
  bool _thread = false;
};

String generation(String const& path, unsigned number) {
  return number == 0 ? path : String(path + "." + String::number(number));
}

}  // namespace

LogFileTarget::LogFileTarget(String path) : _path(std::move(path)) {
  _buffer.reserve(BUFFER_SIZE);
}

LogFileTarget::~LogFileTarget() {
  std::lock_guard lock(_mutex);
  writeBuffer();
}

void LogFileTarget::setSizeLimit(uint64_t bytes) {
  std::lock_guard lock(_mutex);
  _sizeLimit = bytes;
}

void LogFileTarget::setFileCountLimit(unsigned count) {
  std::lock_guard lock(_mutex);
  _fileCountLimit = count ? count : 1;
}

uint64_t LogFileTarget::sizeLimit() const {
  std::lock_guard lock(_mutex);
  return _sizeLimit;
}

unsigned LogFileTarget::fileCountLimit() const {
  std::lock_guard lock(_mutex);
  return _fileCountLimit;
}

void LogFileTarget::write(std::string_view text, bool urgent) {
  bool schedule = false;
  {
    std::lock_guard lock(_mutex);
    if (!_file && !open())
      return;
    if (_sizeLimit && _size > 0 && _size + text.size() > _sizeLimit) {
      rotate();
      if (!_file)
        return;
    }
    _buffer.append(text);
    _size += text.size();
    if (urgent || _buffer.size() >= BUFFER_SIZE)
      writeBuffer();
    else
      schedule = !std::exchange(_scheduled, true);
  }
  if (schedule)
    Flusher::instance().schedule(this);
}

void LogFileTarget::flush() {
  std::lock_guard lock(_mutex);
  _scheduled = false;
  writeBuffer();
}

bool LogFileTarget::open() {
  try {
    _file = std::make_unique<FileOutputStream>(_path, 0644, FileOutputStream::Open::APPEND);
    _size = _file->size();
    _reportedFailure = false;
    return true;
  } catch (Exception const& e) {
    _file.reset();
    if (!std::exchange(_reportedFailure, true)) {
      // Not through the logging system: this is the logging system.
      auto line = fmt::format("Cannot open the log file {}: {}\n", _path, e.toString());
      LogConsoleTarget().write(line, true);
    }
    return false;
  }
}

void LogFileTarget::writeBuffer() {
  if (!_file)
    _buffer.clear();
  if (_buffer.empty())
    return;
  try {
    _file->write(_buffer.data(), _buffer.size());
  } catch (Exception const&) {
    // A full disk loses these lines; the next write tries again.
  }
  _buffer.clear();
}

void LogFileTarget::rotate() {
  writeBuffer();
  try {
    _file->close();
  } catch (Exception const&) {
  }
  _file.reset();
  try {
    File(generation(_path, _fileCountLimit - 1)).remove();
    for (unsigned number = _fileCountLimit - 1; number > 0; --number) {
      File older(generation(_path, number - 1));
      if (older.exists())
        older.moveTo(generation(_path, number));
    }
  } catch (Exception const&) {
    // The file goes on growing rather than losing lines.
  }
  open();
}

}  // namespace fn

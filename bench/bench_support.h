#pragma once

// What the parts of lumaren-bench share: figures, settings, and starting this executable again
// in another role. POSIX only, like the benchmark.

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include "foundation/file.h"
#include "foundation/string.h"
#include "foundation/uv/process.h"

namespace bench {

using Clock = std::chrono::steady_clock;
inline constexpr int WINDOW = 256;

struct Figures {
  double medianMicros = 0;
  double roundTripsPerSecond = 0;
};

struct Settings {
  int latencyRounds = 5000;
  int throughputRounds = 300000;
  int idleWorkers = 1000;
  int references = 1000000;
};

inline fn::String tempPath(char const* name) {
  return fn::String(fmt::format("/tmp/lumaren-bench-{}-{}", getpid(), name));
}

inline void waitForFile(fn::String const& path) {
  for (int i = 0; i < 500 && !fn::File(path).exists(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

inline pid_t spawnSelf(std::vector<fn::String> args) {
  pid_t pid = fork();
  if (pid == 0) {
    fn::String self = fn::uv::executablePath();
    std::vector<char*> argv{self.data()};
    for (auto& a : args)
      argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(self.c_str(), argv.data());
    _exit(127);
  }
  return pid;
}

inline void finish(pid_t pid) {
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
}

inline double median(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return samples[samples.size() / 2];
}

/// A blocking Unix-socket client of `path`, retried for up to five seconds; -1 on failure.
inline int connectTo(fn::String const& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  for (int i = 0; i < 500; ++i) {
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
      return fd;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

/// The resident memory of process `pid` in bytes (VmRSS), or 0.
inline size_t residentBytes(pid_t pid) {
  fn::String status;
  try {
    status = fn::String(fn::File(fn::String(fmt::format("/proc/{}/status", pid))).readAll().view());
  } catch (...) {
    return 0;
  }
  size_t at = status.find("VmRSS:");
  if (at == fn::String::npos)
    return 0;
  return std::strtoull(status.c_str() + at + 6, nullptr, 10) * 1024;
}

}  // namespace bench

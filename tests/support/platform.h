#pragma once

// What differs between the platforms for the tests themselves: scratch directories, local pipe
// names, other processes. Everything else in the suites is the same code on both.

#include <gtest/gtest.h>
#include <uv.h>
#if defined(_WIN32)
#include <windows.h>

#include <tlhelp32.h>
#else
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <csignal>
#endif

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <vector>

#include "foundation/string.h"
#include "foundation/uv/process.h"

namespace testing_support {

inline fn::String randomSuffix() {
  uint8_t bytes[6];
  if (uv_random(nullptr, nullptr, bytes, sizeof bytes, 0, nullptr) != 0)
    ADD_FAILURE() << "no random bytes";
  fn::String text;
  for (uint8_t byte : bytes)
    text += fmt::format("{:02x}", byte);
  return text;
}

/// A new empty directory in the system's temporary directory; the caller removes it.
inline fn::String makeTemporaryDirectory(std::string_view prefix) {
  std::filesystem::path path =
      std::filesystem::temp_directory_path() / (std::string(prefix) + "-" + randomSuffix());
  std::error_code error;
  if (!std::filesystem::create_directory(path, error))
    ADD_FAILURE() << "cannot create " << path << ": " << error.message();
  return fn::String(path.string());
}

/// A name a local pipe can be bound to: a socket file in `directory` on POSIX, a name in the
/// kernel's pipe name space on Windows.
inline fn::String localPipePath(fn::String const& directory, std::string_view name) {
#if defined(_WIN32)
  (void)directory;
  return fn::String("\\\\.\\pipe\\lumaren-test-" + std::string(name) + "-" + randomSuffix());
#else
  return fn::String(directory + "/" + std::string(name));
#endif
}

/// The kernel's release as uname() tells it; empty on Windows.
inline fn::String kernelRelease() {
#if defined(_WIN32)
  return {};
#else
  utsname names{};
  return ::uname(&names) == 0 ? fn::String(names.release) : fn::String();
#endif
}

/// A FIFO at `path`; false on Windows, which has none.
inline bool makeFifo(fn::String const& path) {
#if defined(_WIN32)
  (void)path;
  return false;
#else
  return ::mkfifo(path.c_str(), 0600) == 0;
#endif
}

/// Stops and continues a process (SIGSTOP and SIGCONT; the kernel's suspend and resume on
/// Windows), to play a peer that hangs.
inline bool suspendProcess(int pid, bool suspend) {
#if defined(_WIN32)
  using Call = LONG(NTAPI*)(HANDLE);
  HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
  auto call = reinterpret_cast<Call>(reinterpret_cast<void*>(
      ::GetProcAddress(ntdll, suspend ? "NtSuspendProcess" : "NtResumeProcess")));
  HANDLE process = ::OpenProcess(PROCESS_SUSPEND_RESUME, FALSE, static_cast<DWORD>(pid));
  bool ok = call && process && call(process) == 0;
  if (process)
    ::CloseHandle(process);
  return ok;
#else
  return uv_kill(pid, suspend ? SIGSTOP : SIGCONT) == 0;
#endif
}

/// The effective user is root (never on Windows).
inline bool isRoot() {
#if defined(_WIN32)
  return false;
#else
  return ::geteuid() == 0;
#endif
}

/// The processes whose parent is `pid`.
inline std::vector<int> childProcesses(int pid) {
  std::vector<int> children;
#if defined(_WIN32)
  HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (bool more = ::Process32FirstW(snapshot, &entry); more;
       more = ::Process32NextW(snapshot, &entry)) {
    if (static_cast<int>(entry.th32ParentProcessID) == pid)
      children.push_back(static_cast<int>(entry.th32ProcessID));
  }
  ::CloseHandle(snapshot);
#else
  std::ifstream list(fmt::format("/proc/{}/task/{}/children", pid, pid));
  children.assign(std::istream_iterator<int>(list), {});
#endif
  return children;
}

/// A program installed beside the test executable (".exe" is found by itself on Windows).
inline fn::String siblingProgram(std::string_view name) {
  fn::String self = fn::uv::executablePath();
  return fn::String(self.substr(0, self.find_last_of("/\\") + 1) + std::string(name));
}

/// `text` as it appears inside a JSON string: Windows paths have backslashes.
inline std::string jsonEscaped(std::string_view text) {
  std::string escaped;
  for (char c : text) {
    if (c == '\\' || c == '"')
      escaped += '\\';
    escaped += c;
  }
  return escaped;
}

inline bool isWindows() {
#if defined(_WIN32)
  return true;
#else
  return false;
#endif
}

}  // namespace testing_support

/// Skips a test whose subject does not exist on Windows (POSIX signals, file modes, users).
#define SKIP_ON_WINDOWS(reason)                     \
  do {                                              \
    if (::testing_support::isWindows())             \
      GTEST_SKIP() << "not on Windows: " << reason; \
  } while (0)

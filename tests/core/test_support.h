#pragma once

// Helpers shared by the application-service tests: a scratch directory that the path manager
// resolves every location into, and helper tests run in child processes.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "foundation/environment.h"
#include "foundation/file.h"
#include "foundation/file_stream.h"
#include "foundation/json.h"
#include "foundation/path_manager.h"
#include "log_capture.h"

namespace core::testing {

/// Creates a fresh directory and points the path manager's test root at it (inherited by
/// forked children); removes both afterwards.
class TemporaryRoot {
public:
  TemporaryRoot() {
    char pattern[] = "/tmp/lumaren-core-test-XXXXXX";
    char* made = ::mkdtemp(pattern);
    EXPECT_NE(made, nullptr);
    _path = made ? made : "";
    fn::Environment::set(fn::PathManager::TEST_ROOT_VARIABLE, _path);
  }
  ~TemporaryRoot() {
    fn::Environment::unset(fn::PathManager::TEST_ROOT_VARIABLE);
    std::error_code ignored;
    std::filesystem::remove_all(std::string(_path), ignored);
  }
  fn::String const& path() const { return _path; }
  fn::String file(std::string_view name) const {
    return fn::String(_path + "/" + fn::String(name));
  }

private:
  fn::String _path;
};

using testing_support::LogCapture;

/// Child processes without extra binaries: the test executable runs itself with a filter that
/// selects one helper test. A helper test returns at once unless HELPER_VARIABLE names it; it
/// reports through a JSON map written to the file named by OUTPUT_VARIABLE.
inline constexpr char const* HELPER_VARIABLE = "LUMAREN_TEST_HELPER";
inline constexpr char const* OUTPUT_VARIABLE = "LUMAREN_TEST_HELPER_OUTPUT";

/// Whether this process runs as the helper `name` ("Suite.Test").
inline bool runningAsHelper(std::string_view name) {
  return fn::Environment::get(HELPER_VARIABLE) == name;
}

inline void reportFromHelper(fn::Value const& report) {
  fn::FileOutputStream out(fn::Environment::get(OUTPUT_VARIABLE));
  fn::json::serialize(report, out);
  out.close();
}

/// Runs the helper test `name` in a child process that inherits this environment plus
/// `variables` (an empty value unsets a variable) and returns its report.
inline fn::Value runHelper(fn::String const& name,
                           std::vector<std::pair<char const*, fn::String>> const& variables = {}) {
  char pattern[] = "/tmp/lumaren-helper-XXXXXX";
  int fd = ::mkstemp(pattern);
  EXPECT_GE(fd, 0);
  ::close(fd);
  fn::String output(pattern);
  pid_t child = ::fork();
  if (child == 0) {
    ::setenv(HELPER_VARIABLE, name.c_str(), 1);
    ::setenv(OUTPUT_VARIABLE, output.c_str(), 1);
    for (auto const& [variable, value] : variables) {
      if (value.empty())
        ::unsetenv(variable);
      else
        ::setenv(variable, value.c_str(), 1);
    }
    fn::String filter("--gtest_filter=" + name);
    char const* argv[] = {"helper", filter.c_str(), nullptr};
    ::execv("/proc/self/exe", const_cast<char* const*>(argv));
    ::_exit(127);
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "helper " << name << " failed";
  fn::ByteArray text = fn::File(output).readAll();
  fn::File(output).remove();
  if (text.empty()) {
    ADD_FAILURE() << "helper " << name << " reported nothing";
    return {};
  }
  return fn::json::deserialize(text.view());
}

}  // namespace core::testing

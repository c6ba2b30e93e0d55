#pragma once

// Helpers shared by the application-service tests: a scratch directory that the path manager
// resolves every location into, and the log capture.

#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "child_process.h"
#include "foundation/environment.h"
#include "foundation/path_manager.h"
#include "log_capture.h"
#include "loop_runner.h"
#include "platform.h"

namespace core::testing {

/// Creates a fresh directory and points the path manager's test root at it (inherited by
/// forked children); removes both afterwards.
class TemporaryRoot {
public:
  TemporaryRoot() {
    _path = testing_support::makeTemporaryDirectory("lumaren-core-test");
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

/// A fresh per-user runtime directory (sockets, locks) for this process and the children it
/// starts; removed afterwards.
class TemporaryRuntimeDirectory {
public:
  TemporaryRuntimeDirectory() {
    _path = testing_support::makeTemporaryDirectory("lumaren-runtime-test");
    _previous = fn::Environment::get("XDG_RUNTIME_DIR");
    fn::Environment::set("XDG_RUNTIME_DIR", _path);
  }
  ~TemporaryRuntimeDirectory() {
    if (_previous.empty())
      fn::Environment::unset("XDG_RUNTIME_DIR");
    else
      fn::Environment::set("XDG_RUNTIME_DIR", _previous);
    std::error_code ignored;
    std::filesystem::remove_all(std::string(_path), ignored);
  }
  /// The directory the services use inside it.
  fn::String directory() const { return _path + "/lumaren"; }

private:
  fn::String _path;
  fn::String _previous;
};

/// Runs a program (by default the test executable, in a role) to its end on a loop of its own,
/// expecting exit status 0; its outputs, without the carriage returns of Windows' text mode.
struct Outputs {
  fn::String out, err;
};
inline Outputs runToEnd(std::vector<fn::String> arguments,
                        fn::String const& file = fn::uv::executablePath()) {
  fn::uv::Loop loop;
  auto child = testing_support::ChildProcess::start(
      loop, {.file = file, .arguments = std::move(arguments), .capture = true});
  EXPECT_EQ(child->waitForExit(), 0) << file << "\n" << child->err();
  Outputs outputs{child->out(), child->err()};
  child.reset();
  testing_support::drainLoop(loop);
  std::erase(outputs.out, '\r');
  std::erase(outputs.err, '\r');
  return outputs;
}

using testing_support::LogCapture;

}  // namespace core::testing

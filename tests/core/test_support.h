#pragma once

// Helpers shared by the application-service tests: a scratch directory that the path manager
// resolves every location into, and a log sink that records what was logged.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

#include "foundation/environment.h"
#include "foundation/logging/category.h"
#include "foundation/path_manager.h"

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

struct LoggedLine {
  fn::String category;
  int priority;
  fn::String text;
};

/// Records every line logged while it exists.
class LogCapture {
public:
  LogCapture()
      : _sink(std::make_shared<Sink>()) {
    fn::logging::CategoryManager::instance().addSink(_sink);
  }
  ~LogCapture() { fn::logging::CategoryManager::instance().removeSink(_sink.get()); }

  std::vector<LoggedLine> lines() const {
    std::lock_guard lock(_sink->mutex);
    return _sink->lines;
  }
  std::vector<LoggedLine> linesOf(std::string_view category) const {
    std::vector<LoggedLine> found;
    for (auto& line : lines()) {
      if (line.category == category)
        found.push_back(line);
    }
    return found;
  }

private:
  struct Sink : fn::logging::Sink {
    void write(fn::logging::Message const& message) override {
      std::lock_guard lock(mutex);
      lines.push_back({message.category.name(), message.priority, fn::String(message.text)});
    }
    mutable std::mutex mutex;
    std::vector<LoggedLine> lines;
  };
  std::shared_ptr<Sink> _sink;
};

}  // namespace core::testing

#pragma once

// Records every log line while it lives, so tests can check the texts users rely on.

#include <memory>
#include <mutex>
#include <vector>

#include "foundation/logging/category.h"

namespace testing_support {

class LogCapture {
public:
  struct Line {
    fn::String category;
    int priority;
    fn::String text;
  };

  LogCapture() : _sink(std::make_shared<Sink>()) {
    fn::logging::CategoryManager::instance().addSink(_sink);
  }
  ~LogCapture() { fn::logging::CategoryManager::instance().removeSink(_sink.get()); }

  /// The lines whose text contains `needle`.
  std::vector<Line> matching(std::string_view needle) const {
    std::lock_guard lock(_sink->mutex);
    std::vector<Line> found;
    for (auto const& line : _sink->lines) {
      if (line.text.find(needle) != fn::String::npos)
        found.push_back(line);
    }
    return found;
  }
  bool contains(std::string_view needle) const { return !matching(needle).empty(); }

private:
  struct Sink : fn::logging::Sink {
    void write(fn::logging::Message const& message) override {
      std::lock_guard lock(mutex);
      lines.push_back(Line{message.category.name(), message.priority, fn::String(message.text)});
    }
    mutable std::mutex mutex;
    std::vector<Line> lines;
  };
  std::shared_ptr<Sink> _sink;
};

}  // namespace testing_support

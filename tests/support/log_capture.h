#pragma once

// Records every log line while it lives, so tests can check the texts users rely on.

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

  LogCapture() : _sink(fn::makeAuto<Sink>()) {
    fn::logging::CategoryManager::instance().registerSink(_sink);
  }
  ~LogCapture() { fn::logging::CategoryManager::instance().unregisterSink(_sink.get()); }

  std::vector<Line> lines() const {
    std::lock_guard lock(_sink->mutex);
    return _sink->lines;
  }
  /// The lines whose text contains `needle`.
  std::vector<Line> matching(std::string_view needle) const {
    return select([&](Line const& line) { return line.text.find(needle) != fn::String::npos; });
  }
  std::vector<Line> linesOf(std::string_view category) const {
    return select([&](Line const& line) { return line.category == category; });
  }
  bool contains(std::string_view needle) const { return !matching(needle).empty(); }

private:
  template <typename Predicate>
  std::vector<Line> select(Predicate const& wanted) const {
    std::vector<Line> found;
    for (auto const& line : lines()) {
      if (wanted(line))
        found.push_back(line);
    }
    return found;
  }

  struct Sink : fn::logging::Sink {
    void logMessage(fn::logging::Category const& category,
                    fn::logging::Message const& message) override {
      std::lock_guard lock(mutex);
      lines.push_back(Line{category.name(), message.priority(), fn::String(message.text())});
    }
    mutable std::mutex mutex;
    std::vector<Line> lines;
  };
  fn::AutoPtr<Sink> _sink;
};

}  // namespace testing_support

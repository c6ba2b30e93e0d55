#pragma once

// Logging core. A Category has a dotted name and a threshold; a message passes when its
// priority (1 most severe .. 7 least) is at most the threshold. Passing messages go to every
// sink registered with the CategoryManager, on the thread that logs. The text is formatted
// only when the message passes, so disabled debug lines cost one relaxed load.

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn::logging {

enum Priority : int { ERR = 1, WRN = 2, FIX = 3, INF = 4, DBG = 5, LOG = 6, TRC = 7 };

/// "ERR", "WRN", "FIX", "INF", "DBG", "LOG", "TRC"; "???" outside 1..7.
FN_EXPORT std::string_view priorityName(int priority);

class Category;

struct Message {
  Category const& category;
  int priority;
  std::string_view text;
  std::chrono::system_clock::time_point time;
};

class FN_EXPORT Sink {
public:
  virtual ~Sink();
  /// Called on the logging thread, under the manager's lock: keep it short and never log.
  virtual void write(Message const& message) = 0;
};

class FN_EXPORT Category {
public:
  explicit Category(char const* name);
  ~Category();
  Category(Category const&) = delete;
  Category& operator=(Category const&) = delete;

  String const& name() const { return _name; }
  bool enabled(int priority) const {
    return priority <= _threshold.load(std::memory_order_relaxed);
  }
  int threshold() const { return _threshold.load(std::memory_order_relaxed); }
  void setThreshold(int threshold) { _threshold.store(threshold, std::memory_order_relaxed); }

  template <typename... Args>
  void log(int priority, fmt::format_string<Args...> format, Args&&... args) const {
    if (enabled(priority))
      write(priority, fmt::format(format, std::forward<Args>(args)...));
  }
  /// Writes `text` without checking the threshold.
  void write(int priority, std::string_view text) const;

private:
  String _name;
  std::atomic<int> _threshold;
};

/// Holds the sinks and the thresholds. Thresholds come from rules: a rule for "ipc" applies
/// to "ipc" and every "ipc.*" category, the longest matching rule wins, and "*" is the default.
class FN_EXPORT CategoryManager {
public:
  static CategoryManager& instance();

  void addSink(std::shared_ptr<Sink> sink);
  void removeSink(Sink const* sink);

  /// Sets the threshold for `prefix` ("*" for the default) and re-applies all rules.
  void setThreshold(std::string_view prefix, int threshold);
  /// Reads rules such as "*=4,ipc.dispatcher=7" (the form of the LUMAREN_LOG variable).
  void applyRules(std::string_view rules);

  void dispatch(Message const& message);

private:
  friend class Category;
  CategoryManager();
  void add(Category* category);
  void remove(Category* category);
  int thresholdFor(std::string_view name) const;

  mutable std::recursive_mutex _mutex;
  std::vector<std::shared_ptr<Sink>> _sinks;
  std::vector<Category*> _categories;
  std::vector<std::pair<String, int>> _rules;
};

}  // namespace fn::logging

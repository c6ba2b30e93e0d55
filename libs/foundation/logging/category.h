#pragma once

// Logging core. A Category has a dotted name and a parent (the category named by the name
// without its last part, null at the root). A message carries its priority (1 most severe ..
// 7 least), time stamp, source file and line, tag, thread number and text, and goes to every
// sink registered with the CategoryManager, on the thread that logs.
//
// Each category caches a gate: the largest priority number any registered sink may want from
// it. A message above the gate costs one relaxed load and a comparison, and its text is never
// formatted. Sinks either follow the manager's rules (thresholds by name prefix, from the
// LUMAREN_LOG variable: the console and test captures) or say for themselves which priorities
// they want from a category (logging profiles); either way a sink still sees only what it
// asked for or less.
//
// Call sites keep the form `category.log(priority, "format {}", args...)`: the format string
// brings the caller's source location with it.

#include <atomic>
#include <mutex>
#include <string_view>
#include <type_traits>
#include <vector>

#include "foundation/export.h"
#include "foundation/object.h"
#include "foundation/string.h"
#include "foundation/timestamp.h"

namespace fn::logging {

enum Priority : int { ERR = 1, WRN = 2, FIX = 3, INF = 4, DBG = 5, LOG = 6, TRC = 7 };

/// "ERR", "WRN", "FIX", "INF", "DBG", "LOG", "TRC"; "???" outside 1..7.
FN_EXPORT std::string_view priorityName(int priority);

/// A small number for the calling thread, given out in the order threads first ask (from 1).
FN_EXPORT unsigned currentThreadNumber();

class Category;

/// Where a log call was written. The default arguments are taken where current() is called
/// as a default argument itself, that is at the logging call (GCC and Clang both do this; not
/// every standard library's std::source_location works with Clang yet).
struct SourceLocation {
  static constexpr SourceLocation current(char const* file = __builtin_FILE(),
                                          int line = __builtin_LINE()) {
    return {file, line};
  }
  char const* file = "";
  int line = 0;
};

/// One log message as sinks see it; it lives for the duration of the logging call, so a sink
/// that keeps anything copies it.
class FN_EXPORT Message {
public:
  using Priority = int;

  Message(int priority,
          std::string_view text,
          std::string_view tag = {},
          SourceLocation const& location = SourceLocation::current());

  int priority() const { return _priority; }
  Timestamp const& time() const { return _time; }
  /// The source path as the compiler spelled it.
  char const* file() const { return _file; }
  int line() const { return _line; }
  std::string_view tag() const { return _tag; }
  unsigned threadNumber() const { return _threadNumber; }
  std::string_view text() const { return _text; }

  void setTime(Timestamp time) { _time = time; }
  void setSource(char const* file, int line) {
    _file = file;
    _line = line;
  }
  void setThreadNumber(unsigned number) { _threadNumber = number; }

private:
  int _priority;
  Timestamp _time;
  char const* _file;
  int _line;
  std::string_view _tag;
  unsigned _threadNumber;
  std::string_view _text;
};

/// A format string and the place it was written, taken where the call site passes it.
template <typename... Args>
struct FormatAt {
  template <typename S>
  requires std::is_convertible_v<S const&, std::string_view>
  consteval FormatAt(S const& text, SourceLocation where = SourceLocation::current())
      : format(text),
        location(where) {}
  fmt::format_string<Args...> format;
  SourceLocation location;
};

class FN_EXPORT Sink : public RefCountedObject {
public:
  ~Sink() override;
  /// Called on the logging thread, possibly on several at once. Never log from here.
  virtual void logMessage(Category const& category, Message const& message) = 0;
  /// Whether the manager's rules choose what this sink gets (the default); otherwise
  /// threshold() says it.
  virtual bool followsRules() const { return true; }
  /// The largest priority number this sink may take from `category`. Asked when sinks or
  /// rules change (CategoryManager::updateThresholds), never per message.
  virtual int threshold(Category const& category) const;
};

class FN_EXPORT Category {
public:
  explicit Category(std::string_view name);
  ~Category();
  Category(Category const&) = delete;
  Category& operator=(Category const&) = delete;

  String const& name() const { return _name; }
  /// The category of the name without its last dotted part; null for a name without a dot.
  Category const* parent() const { return _parent; }

  bool enabled(int priority) const { return priority <= _gate.load(std::memory_order_relaxed); }
  /// What the manager's rules let through for this category.
  int threshold() const { return _ruleThreshold.load(std::memory_order_relaxed); }

  template <typename... Args>
  void log(int priority, FormatAt<std::type_identity_t<Args>...> format, Args&&... args) const {
    if (enabled(priority))
      logFormatted(priority, {}, format.location, format.format, fmt::make_format_args(args...));
  }
  /// The same with a tag, which logging profiles may allow or forbid.
  template <typename... Args>
  void logTagged(int priority,
                 std::string_view tag,
                 FormatAt<std::type_identity_t<Args>...> format,
                 Args&&... args) const {
    if (enabled(priority))
      logFormatted(priority, tag, format.location, format.format, fmt::make_format_args(args...));
  }
  /// Hands a finished message to the sinks, if any may want its priority.
  void write(Message const& message) const;

private:
  friend class CategoryManager;
  struct Interned {};
  Category(Interned, std::string_view name);
  void logFormatted(int priority,
                    std::string_view tag,
                    SourceLocation const& location,
                    fmt::string_view format,
                    fmt::format_args args) const;

  String _name;
  Category const* _parent = nullptr;
  std::atomic<int> _gate{0};
  std::atomic<int> _ruleThreshold{0};
};

/// Holds the sinks and the rules. A rule for "ipc" applies to "ipc" and every "ipc.*"
/// category, the longest matching rule wins, and "*" is the default (INF).
class FN_EXPORT CategoryManager {
public:
  static CategoryManager& instance();

  void registerSink(AutoPtr<Sink> sink);
  void unregisterSink(Sink const* sink);
  /// The console sink every process starts with: it follows the rules and writes
  /// "HH:MM:SS.mmm PRI category: text" lines to standard error.
  AutoPtr<Sink> const& consoleSink() const { return _consoleSink; }

  /// Sets the threshold for `prefix` ("*" for the default) and re-applies all rules.
  void setThreshold(std::string_view prefix, int threshold);
  /// Reads rules such as "*=4,ipc.dispatcher=7" (the form of the LUMAREN_LOG variable).
  void applyRules(std::string_view rules);
  /// Asks every sink again what it wants from every category; for sinks whose wishes changed.
  void updateThresholds();

  void dispatch(Category const& category, Message const& message);

private:
  friend class Category;
  struct SinkList;
  CategoryManager();
  void add(Category* category);
  void remove(Category* category);
  Category const* internedParent(std::string_view name);
  int ruleFor(std::string_view name) const;
  void applyThresholds(Category& category) const;
  void publish(std::vector<AutoPtr<Sink>> sinks);

  mutable std::recursive_mutex _mutex;
  std::vector<AutoPtr<Sink>> _sinks;
  // Read without a lock by every logging thread. Lists that were replaced are kept, so a
  // thread still walking one never finds it freed; sinks change a handful of times per run.
  std::atomic<SinkList const*> _published{nullptr};
  std::vector<SinkList const*> _retired;
  std::vector<Category*> _categories;
  std::vector<Category*> _parents;
  std::vector<std::pair<String, int>> _rules;
  AutoPtr<Sink> _consoleSink;
};

}  // namespace fn::logging

#pragma once

// Logging profiles: small text files that say which log messages go where.
//
// A profile file holds "key = value" lines; "#" starts a comment, keys are case-insensitive,
// and a later line overrides an earlier one for the single-valued keys:
//
//   name = Network            description = ...
//   enabled = true            simple = false         verbose = false
//   threshold = 4             # priorities 1 (ERR) to 4 (INF) pass
//   threshold.net = 7         # category "net" and its sub-categories: up to 7 (TRC)
//   allowedTags = a, b        forbiddenTags = c      # repeated keys add more
//   filter = exact text of a message to suppress     # one per line; errors always pass
//
// A profile decides per message, in this order: a forbidden tag drops it; a non-empty allowed
// list drops every other tag; the threshold of the nearest category (itself, then its parents)
// named by the profile, else the root threshold, drops what is less severe; a filter drops a
// message whose text it equals, unless the message is an error. What passes goes to the
// profile's sink. Without a "threshold" line nothing passes but through category thresholds.
// Category thresholds are kept under the lower-cased name but looked up as the category
// spells it, so a category with capitals in its name never matches one: profiles out there
// rely on that.
//
// A profile is filled from its file once and afterwards only read, from any thread that logs.

#include <atomic>
#include <set>
#include <unordered_map>
#include <vector>

#include "core/export.h"
#include "foundation/assert.h"
#include "foundation/log_target.h"
#include "foundation/logging/category.h"
#include "foundation/stream.h"

namespace core {

using Priority = fn::logging::Message::Priority;

/// The three-letter code of a priority in log files: "ERR" ... "TRC", three blanks otherwise.
CORE_EXPORT std::string_view priorityCode(int priority);

class CORE_EXPORT LoggingProfile : public fn::RefCountedObject {
public:
  /// Hashes category names with FNV-1a, the hash the filters use too.
  struct CORE_EXPORT NameHash {
    size_t operator()(fn::String const& name) const;
  };
  using ThresholdMap = std::unordered_map<fn::String, Priority, NameHash>;

  fn::String const& name() const { return _name; }
  void setName(fn::String name) { _name = std::move(name); }
  fn::String const& description() const { return _description; }
  void setDescription(fn::String description) { _description = std::move(description); }
  /// The last component of the profile file's path; decides where the profile writes.
  fn::String const& fileName() const { return _fileName; }
  void setFileName(fn::String fileName) { _fileName = std::move(fileName); }
  bool enabled() const { return _enabled; }
  void setEnabled(bool enabled) { _enabled = enabled; }
  /// Plain lines rather than formatted ones.
  bool simple() const { return _simple; }
  void setSimple(bool simple) { _simple = simple; }
  /// Takes part only while verbose logging is allowed.
  bool verbose() const { return _verbose; }
  void setVerbose(bool verbose) { _verbose = verbose; }
  Priority rootThreshold() const { return _rootThreshold; }
  void setRootThreshold(Priority threshold) { _rootThreshold = threshold; }

  ThresholdMap const& thresholdMap() const { return _thresholdMap; }
  /// Sets the threshold of the category (stored lower-cased, ASCII only).
  void setCategoryThreshold(fn::String const& category, Priority threshold);

  std::vector<fn::String>& allowedTags() { return _allowedTags; }
  std::vector<fn::String>& forbiddenTags() { return _forbiddenTags; }
  std::vector<fn::String> const& allowedTags() const { return _allowedTags; }
  std::vector<fn::String> const& forbiddenTags() const { return _forbiddenTags; }

  std::set<fn::String> const& filters() const { return _filters; }
  void addFilter(fn::String const& text);
  /// Whether `text` is a filter; its hash is tested before any comparison.
  bool hasFilter(std::string_view text) const;

  fn::AutoPtr<fn::logging::Sink> const& sink() const { return _sink; }
  void setSink(fn::AutoPtr<fn::logging::Sink> const& sink) {
    FN_ASSERT(sink);
    // The old sink goes only after the new one is in place.
    fn::AutoPtr<fn::logging::Sink> old = std::exchange(_sink, sink);
  }

  /// Hands the message to the sink if this profile lets it through (see the top of the file).
  void log(fn::logging::Category const& category, fn::logging::Message const& message) const;

  /// Reads the lines of a profile file. Lines that do not parse are skipped.
  void read(fn::InputStream& stream);
  /// Applies one line of a profile file.
  void readLine(fn::String const& line);

private:
  fn::String _name;
  fn::String _description;
  fn::String _fileName;
  bool _enabled = false;
  bool _simple = false;
  bool _verbose = false;
  Priority _rootThreshold = 0;
  ThresholdMap _thresholdMap;
  std::vector<fn::String> _allowedTags;
  std::vector<fn::String> _forbiddenTags;
  std::set<fn::String> _filters;
  std::set<uint64_t> _filterHashes;
  fn::AutoPtr<fn::logging::Sink> _sink;
};

/// Writes the message text alone, with CRLF line ends.
class CORE_EXPORT SimpleSink : public fn::logging::Sink {
public:
  explicit SimpleSink(fn::AutoPtr<fn::LogTarget> const& target);
  void logMessage(fn::logging::Category const& category,
                  fn::logging::Message const& message) override;
  fn::AutoPtr<fn::LogTarget> const& target() const { return _target; }

private:
  fn::AutoPtr<fn::LogTarget> _target;
};

/// Writes "HH:MM:SS PRI tt file:line - - - text" lines, long texts wrapped at 140 characters
/// under the text column, CRLF line ends, and a day marker before the first message of a run
/// and of each local day. One write per message.
class CORE_EXPORT FormattedSink : public fn::logging::Sink {
public:
  /// Longest piece of a line; wrapped continuations get 4 blanks and 4 characters less.
  static constexpr size_t LINE_LIMIT = 140;
  /// The text starts in this column after any header of up to 47 characters.
  static constexpr size_t TEXT_COLUMN = 48;

  explicit FormattedSink(fn::AutoPtr<fn::LogTarget> const& target);
  void logMessage(fn::logging::Category const& category,
                  fn::logging::Message const& message) override;
  fn::AutoPtr<fn::LogTarget> const& target() const { return _target; }

  /// The pieces `text` is written in: cut at line feeds, and lines longer than the limit
  /// wrapped after a blank, ".", ":" (never inside "::"), ">" or ")", or hard at the limit.
  /// The bool says whether a piece continues a wrapped line.
  static std::vector<std::pair<std::string_view, bool>> splitLines(std::string_view text);

private:
  std::atomic<int> _lastDay{0};
  fn::AutoPtr<fn::LogTarget> _target;
};

/// Passes every message on to its inner sink. Every profile's chain has one, where throttling
/// would go.
class CORE_EXPORT ThrottledSink : public fn::logging::Sink {
public:
  explicit ThrottledSink(fn::AutoPtr<fn::logging::Sink> const& sink);
  void logMessage(fn::logging::Category const& category,
                  fn::logging::Message const& message) override;
  fn::AutoPtr<fn::logging::Sink> const& inner() const { return _sink; }

private:
  fn::AutoPtr<fn::logging::Sink> _sink;
};

/// Writes the text of errors and warnings to standard error while the profiles load.
class CORE_EXPORT FallbackSink : public fn::logging::Sink {
public:
  void logMessage(fn::logging::Category const& category,
                  fn::logging::Message const& message) override;
  bool followsRules() const override { return false; }
  int threshold(fn::logging::Category const&) const override { return fn::logging::WRN; }
};

}  // namespace core

#include "core/logging_profile.h"

#include <algorithm>

#include "foundation/date_time.h"
#include "foundation/hash.h"

namespace core {
namespace {

constexpr std::string_view THRESHOLD_PREFIX = "threshold.";
constexpr size_t PROFILE_READ_BUFFER = 8192;
constexpr size_t WRAP_INDENT = 4;

bool contains(std::vector<fn::String> const& list, std::string_view value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

void appendList(std::vector<fn::String>& list, fn::String const& value) {
  for (auto const& item : value.split(",")) {
    fn::String trimmed = item.trim();
    if (!trimmed.empty())
      list.push_back(std::move(trimmed));
  }
}

/// "C:\src\core\worker.cpp" and "/src/core/worker.cpp" both give "worker".
std::string_view sourceName(std::string_view path) {
  if (size_t slash = path.find_last_of("\\/"); slash != std::string_view::npos)
    path.remove_prefix(slash + 1);
  if (size_t dot = path.rfind('.'); dot != std::string_view::npos)
    path = path.substr(0, dot);
  return path;
}

bool urgent(fn::logging::Message const& message) {
  return message.priority() <= fn::logging::WRN;
}

}  // namespace

std::string_view priorityCode(int priority) {
  return priority >= fn::logging::ERR && priority <= fn::logging::TRC
             ? fn::logging::priorityName(priority)
             : "   ";
}

size_t LoggingProfile::NameHash::operator()(fn::String const& name) const {
  return static_cast<size_t>(fn::fnv1a64(name));
}

void LoggingProfile::setCategoryThreshold(fn::String const& category, Priority threshold) {
  _thresholdMap[category.toLowerCase()] = threshold;
}

void LoggingProfile::addFilter(fn::String const& text) {
  _filters.insert(text);
  _filterHashes.insert(fn::fnv1a64(text));
}

bool LoggingProfile::hasFilter(std::string_view text) const {
  return _filterHashes.contains(fn::fnv1a64(text)) && _filters.contains(fn::String(text));
}

void LoggingProfile::log(fn::logging::Category const& category,
                         fn::logging::Message const& message) const {
  std::string_view tag = message.tag();
  if (contains(_forbiddenTags, tag))
    return;
  if (!_allowedTags.empty() && !contains(_allowedTags, tag))
    return;
  Priority threshold = _rootThreshold;
  for (auto const* at = _thresholdMap.empty() ? nullptr : &category; at; at = at->parent()) {
    if (auto found = _thresholdMap.find(at->name()); found != _thresholdMap.end()) {
      threshold = found->second;
      break;
    }
  }
  if (message.priority() > threshold)
    return;
  // Errors are never filtered: a filter written for a noisy warning must not hide a failure.
  if (message.priority() != fn::logging::ERR && !_filterHashes.empty() && hasFilter(message.text()))
    return;
  if (_sink)
    _sink->logMessage(category, message);
}

void LoggingProfile::read(fn::InputStream& stream) {
  fn::BufferedInputStream buffered(stream, PROFILE_READ_BUFFER);
  fn::StreamReader reader(buffered);
  fn::String line;
  while (reader.readLine(line))
    readLine(line);
}

void LoggingProfile::readLine(fn::String const& line) {
  fn::String content = line.substr(0, line.find('#'));
  size_t equals = content.find('=');
  if (equals == fn::String::npos)
    return;
  fn::String key = fn::String(content.substr(0, equals)).trim().toLowerCase();
  fn::String value = fn::String(content.substr(equals + 1)).trim();
  if (key.empty() || value.empty())
    return;
  auto number = [&](Priority& into) {
    if (auto parsed = value.toInt(); parsed && *parsed >= INT32_MIN && *parsed <= INT32_MAX)
      into = static_cast<Priority>(*parsed);
  };
  if (key == "name") {
    _name = value;
  } else if (key == "enabled") {
    _enabled = value.toBool();
  } else if (key == "description") {
    _description = value;
  } else if (key == "simple") {
    _simple = value.toBool();
  } else if (key == "verbose") {
    _verbose = value.toBool();
  } else if (key == "allowedtags") {
    appendList(_allowedTags, value);
  } else if (key == "forbiddentags") {
    appendList(_forbiddenTags, value);
  } else if (key == "filter") {
    addFilter(value);
  } else if (key == "threshold") {
    number(_rootThreshold);
  } else if (key.startsWith(THRESHOLD_PREFIX) && key.size() > THRESHOLD_PREFIX.size()) {
    Priority threshold = 0;
    if (value.toInt()) {
      number(threshold);
      setCategoryThreshold(key.substr(THRESHOLD_PREFIX.size()), threshold);
    }
  }
}

SimpleSink::SimpleSink(fn::AutoPtr<fn::LogTarget> const& target) : _target(target) {
  FN_ASSERT(target);
}

void SimpleSink::logMessage(fn::logging::Category const&, fn::logging::Message const& message) {
  fn::String text;
  text.reserve(message.text().size() + 2);
  for (char c : message.text()) {
    if (c == '\n')
      text += '\r';
    text += c;
  }
  text += "\r\n";
  if (_target)
    _target->write(text, urgent(message));
}

FormattedSink::FormattedSink(fn::AutoPtr<fn::LogTarget> const& target) : _target(target) {
  FN_ASSERT(target);
}

namespace {

/// Calls `piece(text, continuation)` for each piece of `text` (see FormattedSink::splitLines).
template <typename F>
void forEachPiece(std::string_view text, F&& piece) {
  bool wrapped = false;
  bool pending = false;
  std::string_view last;
  bool lastWrapped = false;
  // Each piece is handed on once the next is known, so that a last empty one can be left out.
  auto emit = [&](std::string_view next, bool continuation) {
    if (pending)
      piece(last, lastWrapped);
    last = next;
    lastWrapped = continuation;
    pending = true;
  };
  while (!text.empty()) {
    size_t limit = wrapped ? FormattedSink::LINE_LIMIT - WRAP_INDENT : FormattedSink::LINE_LIMIT;
    size_t lineFeed = text.substr(0, std::min(text.size(), limit)).find('\n');
    if (lineFeed != std::string_view::npos) {
      emit(text.substr(0, lineFeed), wrapped);
      text.remove_prefix(lineFeed + 1);
      wrapped = false;
      continue;
    }
    if (text.size() <= limit) {
      emit(text, wrapped);
      text = {};
      break;
    }
    size_t cut = limit;
    for (size_t i = limit; i >= 1; --i) {
      char c = text[i - 1];
      bool lonelyColon = c == ':' && !(i >= 2 && text[i - 2] == ':') && text[i] != ':';
      if (c == '.' || c == ' ' || lonelyColon || c == '>' || c == ')') {
        cut = i;
        break;
      }
    }
    emit(text.substr(0, cut), wrapped);
    text.remove_prefix(cut);
    wrapped = true;
  }
  // A message that ends in a line feed gives no blank line.
  if (pending && !last.empty())
    piece(last, lastWrapped);
}

void appendTwoDigits(fmt::memory_buffer& out, int value) {
  out.push_back(static_cast<char>('0' + value / 10 % 10));
  out.push_back(static_cast<char>('0' + value % 10));
}

}  // namespace

std::vector<std::pair<std::string_view, bool>> FormattedSink::splitLines(std::string_view text) {
  std::vector<std::pair<std::string_view, bool>> pieces;
  forEachPiece(text, [&](std::string_view piece, bool continuation) {
    pieces.emplace_back(piece, continuation);
  });
  return pieces;
}

void FormattedSink::logMessage(fn::logging::Category const&, fn::logging::Message const& message) {
  if (!_target)
    return;
  fn::LocalDateTime local(message.time());
  // Only notices a change of day; the factor is not meant as the length of a year.
  int day = local.year() * 365 + local.dayOfYear();
  if (_lastDay.load(std::memory_order_relaxed) != day &&
      _lastDay.exchange(day, std::memory_order_relaxed) != day) {
    fmt::memory_buffer marker;
    fmt::format_to(std::back_inserter(marker), "\r\n>>>>>> ");
    fn::DateTimeFormatter::formatTo(marker, local, "%Y-%m-%d");
    fmt::format_to(std::back_inserter(marker), " <<<<<<\r\n\r\n");
    _target->write(std::string_view(marker.data(), marker.size()), false);
  }

  // Built by hand: this runs for every message that a file profile keeps.
  fmt::memory_buffer line;
  appendTwoDigits(line, local.hour());
  line.push_back(':');
  appendTwoDigits(line, local.minute());
  line.push_back(':');
  appendTwoDigits(line, local.second());
  line.push_back(' ');
  line.append(priorityCode(message.priority()));
  line.push_back(' ');
  char hex[2 * sizeof(unsigned)];
  size_t digits = 0;
  for (unsigned thread = message.threadNumber(); thread || digits < 2; thread >>= 4)
    hex[digits++] = "0123456789abcdef"[thread & 0xf];
  while (digits)
    line.push_back(hex[--digits]);
  line.push_back(' ');
  line.append(sourceName(message.file()));
  line.push_back(':');
  line.append(std::string_view(fmt::format_int(message.line()).c_str()));
  size_t header = line.size();
  line.push_back(' ');
  if (line.size() % 2)
    line.push_back(' ');
  while (line.size() < std::max<size_t>(TEXT_COLUMN - 1, header + 1)) {
    line.push_back('-');
    line.push_back(' ');
  }
  size_t column = line.size();
  bool first = true;
  forEachPiece(message.text(), [&](std::string_view piece, bool continuation) {
    for (size_t blank = 0; !first && blank < column; ++blank)
      line.push_back(' ');
    if (continuation)
      line.append(std::string_view("    "));
    line.append(piece);
    line.append(std::string_view("\r\n"));
    first = false;
  });
  // A message without text writes nothing, not even its header.
  if (first)
    line.clear();
  _target->write(std::string_view(line.data(), line.size()), urgent(message));
}

ThrottledSink::ThrottledSink(fn::AutoPtr<fn::logging::Sink> const& sink) : _sink(sink) {
  FN_ASSERT(sink);
}

void ThrottledSink::logMessage(fn::logging::Category const& category,
                               fn::logging::Message const& message) {
  if (_sink)
    _sink->logMessage(category, message);
}

void FallbackSink::logMessage(fn::logging::Category const&, fn::logging::Message const& message) {
  if (message.priority() >= fn::logging::FIX)
    return;
  fn::String line(message.text());
  line += '\n';
  fn::LogConsoleTarget().write(line, true);
}

}  // namespace core

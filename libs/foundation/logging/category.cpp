#include "foundation/logging/category.h"

#include <algorithm>
#include <cstdlib>

#include "foundation/logging/console_sink.h"

namespace fn::logging {

std::string_view priorityName(int priority) {
  static constexpr std::string_view names[] = {"ERR", "WRN", "FIX", "INF", "DBG", "LOG", "TRC"};
  return priority >= 1 && priority <= 7 ? names[priority - 1] : "???";
}

unsigned currentThreadNumber() {
  static std::atomic<unsigned> next{1};
  thread_local unsigned number = next.fetch_add(1, std::memory_order_relaxed);
  return number;
}

Message::Message(int priority,
                 std::string_view text,
                 std::string_view tag,
                 SourceLocation const& location)
    : _priority(priority),
      _time(Timestamp::now()),
      _file(location.file),
      _line(location.line),
      _tag(tag),
      _threadNumber(currentThreadNumber()),
      _text(text) {}

Sink::~Sink() = default;

int Sink::threshold(Category const&) const {
  return TRC;
}

Category::Category(std::string_view name) : _name(name) {
  CategoryManager::instance().add(this);
}

Category::Category(Interned, std::string_view name) : _name(name) {}

Category::~Category() {
  CategoryManager::instance().remove(this);
}

void Category::write(Message const& message) const {
  if (enabled(message.priority()))
    CategoryManager::instance().dispatch(*this, message);
}

void Category::logFormatted(int priority,
                            std::string_view tag,
                            SourceLocation const& location,
                            fmt::string_view format,
                            fmt::format_args args) const {
  // Most messages fit the inline buffer, so formatting allocates nothing.
  fmt::memory_buffer text;
  fmt::vformat_to(std::back_inserter(text), format, args);
  CategoryManager::instance().dispatch(
      *this, Message(priority, std::string_view(text.data(), text.size()), tag, location));
}

struct CategoryManager::SinkList {
  struct Entry {
    AutoPtr<Sink> sink;
    bool followsRules;
  };
  std::vector<Entry> entries;
};

CategoryManager& CategoryManager::instance() {
  // Never destroyed: categories of other libraries may log while statics are torn down.
  static CategoryManager* manager = new CategoryManager();
  return *manager;
}

CategoryManager::CategoryManager() {
  _rules.emplace_back("*", INF);
  if (char const* rules = std::getenv("LUMAREN_LOG"))
    applyRules(rules);
  _consoleSink = makeAuto<ConsoleSink>();
  registerSink(_consoleSink);
}

void CategoryManager::publish(std::vector<AutoPtr<Sink>> sinks) {
  auto* list = new SinkList();
  for (auto& sink : sinks)
    list->entries.push_back({sink, sink->followsRules()});
  _sinks = std::move(sinks);
  if (auto const* old = _published.exchange(list, std::memory_order_acq_rel))
    _retired.push_back(old);
  for (Category* category : _categories)
    applyThresholds(*category);
}

void CategoryManager::registerSink(AutoPtr<Sink> sink) {
  std::lock_guard lock(_mutex);
  auto sinks = _sinks;
  sinks.push_back(std::move(sink));
  publish(std::move(sinks));
}

void CategoryManager::unregisterSink(Sink const* sink) {
  std::lock_guard lock(_mutex);
  auto sinks = _sinks;
  std::erase_if(sinks, [sink](AutoPtr<Sink> const& s) { return s.get() == sink; });
  publish(std::move(sinks));
}

int CategoryManager::ruleFor(std::string_view name) const {
  int best = INF;
  size_t bestLength = 0;
  bool matched = false;
  for (auto const& [prefix, threshold] : _rules) {
    bool matches = prefix == "*" || (name.starts_with(prefix) &&
                                     (name.size() == prefix.size() || name[prefix.size()] == '.'));
    size_t length = prefix == "*" ? 0 : prefix.size();
    if (matches && (!matched || length >= bestLength)) {
      best = threshold;
      bestLength = length;
      matched = true;
    }
  }
  return best;
}

void CategoryManager::applyThresholds(Category& category) const {
  int rule = ruleFor(category.name());
  int gate = 0;
  for (auto const& sink : _sinks)
    gate = std::max(gate, sink->followsRules() ? rule : sink->threshold(category));
  category._ruleThreshold.store(rule, std::memory_order_relaxed);
  category._gate.store(gate, std::memory_order_relaxed);
}

void CategoryManager::updateThresholds() {
  std::lock_guard lock(_mutex);
  for (Category* category : _categories)
    applyThresholds(*category);
}

void CategoryManager::setThreshold(std::string_view prefix, int threshold) {
  std::lock_guard lock(_mutex);
  auto rule =
      std::find_if(_rules.begin(), _rules.end(), [&](auto const& r) { return r.first == prefix; });
  if (rule != _rules.end())
    rule->second = threshold;
  else
    _rules.emplace_back(String(prefix), threshold);
  updateThresholds();
}

void CategoryManager::applyRules(std::string_view rules) {
  for (auto const& rule : String(rules).split(",")) {
    auto parts = rule.trim().split("=");
    if (parts.size() != 2)
      continue;
    if (auto threshold = parts[1].trim().toInt())
      setThreshold(parts[0].trim(), static_cast<int>(*threshold));
  }
}

Category const* CategoryManager::internedParent(std::string_view name) {
  size_t dot = name.rfind('.');
  if (dot == std::string_view::npos)
    return nullptr;
  std::string_view parentName = name.substr(0, dot);
  // Parents are kept by the manager rather than borrowed from the categories of that name:
  // those are statics of other libraries that may be destroyed first.
  for (Category* parent : _parents) {
    if (parent->name() == parentName)
      return parent;
  }
  auto* parent = new Category(Category::Interned{}, parentName);
  parent->_parent = internedParent(parentName);
  _parents.push_back(parent);
  return parent;
}

void CategoryManager::add(Category* category) {
  std::lock_guard lock(_mutex);
  category->_parent = internedParent(category->name());
  _categories.push_back(category);
  applyThresholds(*category);
}

void CategoryManager::remove(Category* category) {
  std::lock_guard lock(_mutex);
  std::erase(_categories, category);
}

void CategoryManager::dispatch(Category const& category, Message const& message) {
  SinkList const* list = _published.load(std::memory_order_acquire);
  if (!list)
    return;
  int rule = category.threshold();
  for (auto const& entry : list->entries) {
    if (entry.followsRules && message.priority() > rule)
      continue;
    entry.sink->logMessage(category, message);
  }
}

}  // namespace fn::logging

#include "foundation/logging/category.h"

#include <algorithm>
#include <cstdlib>

#include "foundation/logging/console_target.h"

namespace fn::logging {

std::string_view priorityName(int priority) {
  static constexpr std::string_view names[] = {"ERR", "WRN", "FIX", "INF", "DBG", "LOG", "TRC"};
  return priority >= 1 && priority <= 7 ? names[priority - 1] : "???";
}

Sink::~Sink() = default;

Category::Category(char const* name) : _name(name), _threshold(INF) {
  CategoryManager::instance().add(this);
}

Category::~Category() {
  CategoryManager::instance().remove(this);
}

void Category::write(int priority, std::string_view text) const {
  CategoryManager::instance().dispatch(
      Message{*this, priority, text, std::chrono::system_clock::now()});
}

CategoryManager& CategoryManager::instance() {
  // Never destroyed: categories of other libraries may log while statics are torn down.
  static CategoryManager* manager = new CategoryManager();
  return *manager;
}

CategoryManager::CategoryManager() {
  _rules.emplace_back("*", INF);
  if (char const* rules = std::getenv("LUMAREN_LOG"))
    applyRules(rules);
  _sinks.push_back(std::make_shared<LogConsoleTarget>());
}

void CategoryManager::addSink(std::shared_ptr<Sink> sink) {
  std::lock_guard lock(_mutex);
  _sinks.push_back(std::move(sink));
}

void CategoryManager::removeSink(Sink const* sink) {
  std::lock_guard lock(_mutex);
  std::erase_if(_sinks, [sink](auto const& s) { return s.get() == sink; });
}

int CategoryManager::thresholdFor(std::string_view name) const {
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

void CategoryManager::setThreshold(std::string_view prefix, int threshold) {
  std::lock_guard lock(_mutex);
  auto rule =
      std::find_if(_rules.begin(), _rules.end(), [&](auto const& r) { return r.first == prefix; });
  if (rule != _rules.end())
    rule->second = threshold;
  else
    _rules.emplace_back(String(prefix), threshold);
  for (Category* category : _categories)
    category->setThreshold(thresholdFor(category->name()));
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

void CategoryManager::add(Category* category) {
  std::lock_guard lock(_mutex);
  _categories.push_back(category);
  category->setThreshold(thresholdFor(category->name()));
}

void CategoryManager::remove(Category* category) {
  std::lock_guard lock(_mutex);
  std::erase(_categories, category);
}

void CategoryManager::dispatch(Message const& message) {
  std::lock_guard lock(_mutex);
  for (auto const& sink : _sinks)
    sink->write(message);
}

}  // namespace fn::logging

#include "core/property_container.h"

namespace core {

PropertyContainer::~PropertyContainer() = default;

bool PropertyContainer::hasProperty(std::string_view name, fn::Value::Type type) const {
  return hasProperty(name) && property(name, fn::Value::NIL).is(type);
}

SimplePropertyContainer::~SimplePropertyContainer() = default;

fn::Value const& SimplePropertyContainer::property(std::string_view name,
                                                   fn::Value const& defaultValue) const {
  auto const& map = propertyMap();
  auto found = map.find(name);
  return found == map.end() ? defaultValue : found->second;
}

void SimplePropertyContainer::setProperty(std::string_view name, fn::Value value) {
  auto& map = propertyMap();
  auto found = map.find(name);
  if (found == map.end())
    found = map.emplace(fn::String(name), fn::Value()).first;
  found->second = std::move(value);
}

void SimplePropertyContainer::removeProperty(std::string_view name) {
  auto& map = propertyMap();
  auto found = map.find(name);
  if (found != map.end())
    map.erase(found);
}

bool SimplePropertyContainer::hasProperty(std::string_view name) const {
  return propertyMap().contains(name);
}

std::vector<fn::String> SimplePropertyContainer::propertyNames() const {
  std::vector<fn::String> names;
  names.reserve(propertyMap().size());
  for (auto const& entry : propertyMap())
    names.push_back(entry.first);
  return names;
}

}  // namespace core

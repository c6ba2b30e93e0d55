#pragma once

#include <map>
#include <string_view>
#include <vector>

#include "core/export.h"
#include "foundation/string.h"
#include "foundation/value.h"

namespace core {

/// Named values attached to an object (an image's metadata, for instance).
class CORE_EXPORT PropertyContainer {
public:
  /// The stored value, or `defaultValue` itself when there is none: a temporary default
  /// lives only until the end of the caller's full expression.
  virtual fn::Value const& property(std::string_view name,
                                    fn::Value const& defaultValue = fn::Value::NIL) const = 0;
  virtual void setProperty(std::string_view name, fn::Value value) = 0;
  /// Removing an absent property is not an error.
  virtual void removeProperty(std::string_view name) = 0;
  virtual bool hasProperty(std::string_view name) const = 0;
  virtual std::vector<fn::String> propertyNames() const = 0;
  virtual ~PropertyContainer();

  /// Whether the property exists and holds a value of `type`.
  bool hasProperty(std::string_view name, fn::Value::Type type) const;
};

/// A PropertyContainer over an ordered map that the concrete class owns and hands out through
/// the two propertyMap() accessors. Names are listed in ascending order.
class CORE_EXPORT SimplePropertyContainer : public PropertyContainer {
public:
  using PropertyMap = std::map<fn::String, fn::Value, std::less<>>;

  fn::Value const& property(std::string_view name,
                            fn::Value const& defaultValue = fn::Value::NIL) const override;
  void setProperty(std::string_view name, fn::Value value) override;
  void removeProperty(std::string_view name) override;
  bool hasProperty(std::string_view name) const override;
  using PropertyContainer::hasProperty;
  std::vector<fn::String> propertyNames() const override;
  ~SimplePropertyContainer() override;

protected:
  virtual PropertyMap const& propertyMap() const = 0;
  virtual PropertyMap& propertyMap() = 0;
};

}  // namespace core

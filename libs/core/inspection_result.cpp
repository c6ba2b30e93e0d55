#include "core/inspection_result.h"

namespace core {

InspectionResult InspectionResult::redirectTo(fn::Value action) {
  InspectionResult result;
  result.redirect = true;
  result.redirectAction = std::move(action);
  return result;
}

fn::Value InspectionResult::serialize() const {
  // A redirect carries only where to go: its items would never be shown.
  if (redirect)
    return fn::Value::map({{"redirectAction", redirectAction}});
  fn::Value serialized = fn::Value::array();
  for (auto const& item : items) {
    if (item.hasAction())
      serialized.append(fn::Value::map({{"text", item.text}, {"action", item.action}}));
    else
      serialized.append(item.text);
  }
  return fn::Value::map({{"items", std::move(serialized)}});
}

InspectionResult InspectionResult::deserialize(fn::Value const& value) {
  InspectionResult result;
  if (!value.isMap())
    return result;
  if (value.contains("redirectAction"))
    return redirectTo(value.get("redirectAction"));
  fn::Value const& items = value.get("items");
  if (!items.isArray())
    return result;
  for (auto const& element : items.asArray()) {
    if (element.isString()) {
      result.items.emplace_back(element.asString());
    } else if (element.isMap()) {
      fn::Value const& text = element.get("text");
      result.items.emplace_back(text.isString() ? text.asString() : fn::String(),
                                element.get("action"));
    }
  }
  return result;
}

InspectionResultWriter& InspectionResultWriter::append(fn::String const& text,
                                                       fn::Value const& action) {
  _result.items.emplace_back(text, action);
  return *this;
}

}  // namespace core

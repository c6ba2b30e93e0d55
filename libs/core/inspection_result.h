#pragma once

// What an inspector answers: a list of text items, each optionally carrying an action that,
// sent back to the same inspector, asks for a deeper view; or a redirect to another action.
// Plain values, copied freely and used on any thread.
//
// On the wire a redirect is the map {"redirectAction": action} and nothing else; otherwise
// {"items": [...]}, where an item without an action is just its text and one with an action
// is {"text": text, "action": action}. Reading is lenient: what does not fit is skipped.

#include <vector>

#include "core/export.h"
#include "foundation/string.h"
#include "foundation/value.h"

namespace core {

struct CORE_EXPORT Item {
  Item() = default;
  Item(fn::String text, fn::Value action = fn::Value())
      : text(std::move(text)),
        action(std::move(action)) {}

  /// An empty (null) action means the item leads nowhere.
  bool hasAction() const { return !action.isNull(); }
  bool operator==(Item const&) const = default;

  fn::String text;
  fn::Value action;
};

struct CORE_EXPORT InspectionResult {
  /// A result that sends the caller on to `action` instead of showing items.
  static InspectionResult redirectTo(fn::Value action);

  fn::Value serialize() const;
  /// A value that is not a map gives an empty result.
  static InspectionResult deserialize(fn::Value const& value);

  bool operator==(InspectionResult const&) const = default;

  bool redirect = false;
  fn::Value redirectAction;
  std::vector<Item> items;
};

/// Fills a result item by item: `InspectionResultWriter(result).append("a").append("b", 2);`
class CORE_EXPORT InspectionResultWriter {
public:
  explicit InspectionResultWriter(InspectionResult& result) : _result(result) {}

  InspectionResultWriter& append(fn::String const& text, fn::Value const& action = fn::Value());

private:
  InspectionResult& _result;
};

}  // namespace core

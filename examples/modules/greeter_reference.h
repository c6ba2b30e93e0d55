#pragma once

// The client's view of the greeter module's "examples::Greeter" service, shared by the module
// (which hands it out) and whoever calls it.

#include <functional>

#include "core/ipc/callable_object.h"

namespace examples {

class GreeterReference : public ipc::CallableObjectReference {
public:
  explicit GreeterReference(ipc::ObjectReferenceInitializer& initializer)
      : ipc::CallableObjectReference(initializer) {}

  fn::String className() const override { return "examples::Greeter"; }

  fn::Promise<fn::Value> greet(fn::String const& name) { return callMethod("greet", name); }

  /// Called for every "greeted" event: the name and how often it was greeted.
  std::function<void(fn::String const&, int64_t)> onGreeted;

protected:
  void onEvent(fn::String const& name, fn::Value const& argument) override {
    if (name == "greeted" && onGreeted && argument.get("name").isString() &&
        argument.get("times").isInteger())
      onGreeted(argument.get("name").asString(), argument.get("times").asInt());
  }
};

}  // namespace examples

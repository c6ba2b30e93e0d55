#pragma once

// A module process for end-to-end tests of callable objects: the test executable runs itself
// again with "--module <name> <pipe path> <roles>...". The child connects an ipc::Worker to
// the hub and creates a callable "TestService" instance, which tests find through the
// registry. The service's methods let tests drive answers, errors, cancellations, events and
// object lifetimes in a separate process they can kill. The roles let the module register
// its service, use the message bus or offer inspectors.
// The module stops when its hub goes away.

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "child_process.h"
#include "core/ipc/callable_object.h"

namespace testing_support {

/// A reference to a TestService; records the events it hears, in order.
class ServiceReference : public ipc::CallableObjectReference {
public:
  using ipc::CallableObjectReference::CallableObjectReference;
  fn::String className() const override { return "TestService"; }

  std::vector<std::pair<fn::String, fn::Value>> events;
  std::function<void(fn::String const&, fn::Value const&)> onEventHeard;

protected:
  void onEvent(fn::String const& name, fn::Value const& argument) override {
    events.emplace_back(name, argument);
    if (onEventHeard)
      onEventHeard(name, argument);
  }
};

/// A TestService of this process, as a module makes it; "whoAmI" answers `name`.
fn::AutoPtr<ipc::CallableObjectInstance> makeTestService(ipc::Worker& worker,
                                                         fn::String const& name);

/// The error information the module's "failStructured" method attaches, so that the caller
/// can check every piece of it after the trip.
fn::ErrorInfo structuredErrorInfo();

/// Starts the module `name` connected to the hub at `pipePath`. `roles`: "register=<priority>"
/// registers the service under "TestService"; "bus" fetches the sticky messages, then answers
/// each "test.ping" with "test.pong", reports each delivery on "test.config" as "test.heard"
/// and posts "test.ready"; "inspector=<name>" registers an inspector under that name
/// (repeatable); "tag=<tag>" is the tag its HELLO carries.
std::unique_ptr<ChildProcess> startTestModule(fn::uv::Loop& loop,
                                              fn::String const& name,
                                              fn::String const& pipePath,
                                              std::vector<fn::String> const& roles);

/// The module's own main; the test executable calls it when started with "--module".
int runTestModule(int argc, char** argv);

}  // namespace testing_support

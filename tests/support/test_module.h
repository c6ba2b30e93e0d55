#pragma once

// A module process for end-to-end tests of callable objects: the test executable runs itself
// again with "--module <name> <pipe path>". The child connects an ipc::Worker to the hub,
// creates a callable "TestService" instance and announces it on object 0, where the test's
// own worker picks it up (see Lobby). The service's methods let tests drive answers, errors,
// cancellations, events and object lifetimes in a separate process they can kill.
//
// Extra arguments give the module roles (see ModuleRoles): it may register its service in the
// registry, use the message bus, or terminate when idle, reporting on the bus.
//
// The module stops when its hub goes away. ModuleProcess owns the child from the test side
// and kills it (SIGKILL) when destroyed.

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "core/ipc/callable_object.h"
#include "foundation/duration.h"
#include "foundation/uv/loop.h"
#include "foundation/uv/process.h"

namespace testing_support {

/// A reference to a TestService; records the events it hears, in order.
class ServiceReference : public ipc::CallableObjectReference {
public:
  explicit ServiceReference(ipc::ObjectReferenceInitializer& initializer)
      : ipc::CallableObjectReference(initializer) {}
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

/// Object 0 as a worker sees it: what is sent to it reaches every worker but the hub's own.
/// Modules announce themselves there with {"module": name, "service": their service}.
class Lobby : public ipc::ObjectReference {
public:
  explicit Lobby(ipc::ObjectReferenceInitializer& initializer)
      : ipc::ObjectReference(initializer) {}
  std::function<void(fn::Value const&)> onPost;

protected:
  void onMessage(fn::Value const& message) override {
    if (onPost)
      onPost(message);
  }
};

/// The error information the module's "failStructured" method attaches, so that the caller
/// can check every piece of it after the trip.
fn::ErrorInfo structuredErrorInfo();

/// The child process from the test's side.
class ModuleProcess {
public:
  /// `roles`: "register=<priority>" registers the service under "TestService";
  /// "idle=<milliseconds>" enables idle termination with that idle time and posts
  /// "test.terminating" (the module's name) on the bus when it asks to terminate; "bus"
  /// answers each "test.ping" with "test.pong"; "sticky" fetches the sticky messages, then
  /// listens to "test.config" and reports each delivery as "test.heard"; "inspector=<name>"
  /// registers an inspector under that name (repeatable). Modules with a bus role post
  /// "test.ready" once set up. Without roles the module announces itself on object 0.
  static std::unique_ptr<ModuleProcess> start(fn::uv::Loop& loop,
                                              fn::String const& name,
                                              fn::String const& pipePath,
                                              std::vector<fn::String> const& roles = {});
  ~ModuleProcess();

  void kill(int signal);
  /// Runs the loop until the process exited; returns its status (-signal if killed).
  int64_t waitForExit(fn::Duration timeout = fn::Duration::seconds(10));
  bool exited() const { return _exited; }

private:
  explicit ModuleProcess(fn::uv::Loop& loop) : _loop(loop) {}

  fn::uv::Loop& _loop;
  fn::AutoPtr<fn::uv::Process> _process;
  bool _exited = false;
  int64_t _exitStatus = 0;
};

/// The module's own main; the test executable calls it when started with "--module".
int runTestModule(int argc, char** argv);

}  // namespace testing_support

#pragma once

// The module library of the end-to-end tests of modules, and how tests steer it.
//
// One source, built twice: modules/TestModule.so and modules/TestModuleB.so in the build
// tree, where ipc::ModuleDefinition::pathForSharedLibrary() finds them. Either copy runs in a
// process of its own (through Lumaren.ModuleLoader) or inside the hub (ipc::InProcessModule).
// Each copy reads its own environment variables, so one test can give two modules different
// behaviours; a test sets them before the hub launches the module (a module process inherits
// them, an in-process module reads the hub's).
//
//   copy          display name     variables prefix          service class
//   TestModule    "Test Module"    LUMAREN_TEST_MODULE_      "TestModuleService"
//   TestModuleB   "Test Module B"  LUMAREN_TEST_MODULE_B_    "TestModuleBService"
//
// <prefix>MODE: "idle" makes the module terminate when idle (separate process only): after
// <prefix>IDLE_MS milliseconds (default 500) without traffic the worker hides its registry
// entries; the module then posts TERMINATING and ends (exit status 0) once a test posts QUIT
// with its tag. Otherwise it connects, posts CONNECTED on the bus and registers its service.
// <prefix>COMMANDS: a file to which the module appends the body of every "lumaren.command" bus
// message it hears (the hub's relayed commands), one line each in the value's text form.
//
// The service ("<copy>Service" in the registry, priority 0) answers these methods:
//   "whoAmI"  {"module": copy name, "tag", "pid", "separateProcess"}
//   "exit"    ends the process at once with the given status (no answer); in the hub it fails
//
// Bus messages (namespaces below), each with {"module", "tag", "pid", "separateProcess"}:
// CONNECTED from onConnected(), so hearing it proves the bus was there by then;
// TERMINATING when an idle module asks to end.

#include "core/ipc/callable_object.h"
#include "core/ipc/worker.h"

namespace test_modules {

inline constexpr char const* TEST_MODULE = "TestModule";
inline constexpr char const* TEST_MODULE_B = "TestModuleB";

inline constexpr char const* CONNECTED = "test.module.connected";
inline constexpr char const* TERMINATING = "test.module.terminating";
/// Body: the tag of the idle module that may end now.
inline constexpr char const* QUIT = "test.module.quit";

/// The environment variable `suffix` ("MODE", "IDLE_MS") of a copy.
inline fn::String variable(fn::String const& copy, char const* suffix) {
  return fn::String(copy == TEST_MODULE ? "LUMAREN_TEST_MODULE_" : "LUMAREN_TEST_MODULE_B_") +
         suffix;
}

inline fn::String serviceClass(fn::String const& copy) {
  return copy + "Service";
}

/// The reference class of a copy's service, so that it arrives as itself.
template <bool B>
class ServiceReference : public ipc::CallableObjectReference {
public:
  using ipc::CallableObjectReference::CallableObjectReference;
  fn::String className() const override { return serviceClass(B ? TEST_MODULE_B : TEST_MODULE); }
};

/// Lets `worker` hold both services without complaint.
inline void registerServiceReferences(ipc::Worker& worker) {
  worker.registerObjectReferenceClass<ServiceReference<false>>();
  worker.registerObjectReferenceClass<ServiceReference<true>>();
}

}  // namespace test_modules

// The test module library; what it does and how tests steer it: test_module_library.h.
// Built once per copy with TEST_MODULE_COPY (the copy's name) and TEST_MODULE_DISPLAY_NAME.

#include "test_module_library.h"

#include <uv.h>

#include <cstdlib>
#include <fstream>

#include "core/ipc/message_bus.h"
#include "core/ipc/module_entry.h"
#include "core/ipc/registry.h"
#include "foundation/environment.h"

namespace test_modules {
namespace {

constexpr char const* COPY = TEST_MODULE_COPY;
constexpr bool COPY_B = std::string_view(TEST_MODULE_COPY) == "TestModuleB";

fn::String setting(char const* suffix) {
  return fn::Environment::get(variable(COPY, suffix).c_str());
}

class Service : public ipc::CallableObjectInstance {
public:
  Service(ipc::Worker& worker, fn::Value identity)
      : ipc::CallableObjectInstance(worker),
        _identity(std::move(identity)) {}

protected:
  fn::AutoPtr<ipc::ObjectReference> createReference(
      ipc::ObjectReferenceInitializer& initializer) override {
    return fn::AutoPtr<ipc::ObjectReference>(new ServiceReference<COPY_B>(initializer));
  }

  void onMethodCall(CallContext const& context,
                    fn::String const& method,
                    fn::Value const& argument) override {
    if (method == "whoAmI") {
      sendResult(context, _identity);
    } else if (method == "exit") {
      if (!_identity.get("separateProcess").asBool())
        throw fn::IllegalStateException("A module inside the hub does not end the hub");
      std::_Exit(static_cast<int>(argument.isInteger() ? argument.asInt() : 0));
    }
  }

private:
  fn::Value _identity;
};

class TestModule : public ipc::Module {
public:
  // The idle time-out matters only to a module that wants to end when idle.
  explicit TestModule(ipc::ModuleInitData const& init)
      : ipc::Module(
            init,
            {.idleTimeout = fn::Duration::milliseconds(setting("IDLE_MS").toInt().value_or(500))}),
        _mode(setting("MODE").trim()) {}

protected:
  void onConnected() override {
    fn::Value identity = fn::Value::map({{"module", COPY},
                                         {"tag", initData().workerTag()},
                                         {"pid", uv_os_getpid()},
                                         {"separateProcess", initData().separateProcess()}});
    auto const& bus = ipc::MessageBus::processBus();
    // Listening before the service is registered: a test that found the service knows that
    // commands reach the module.
    if (fn::String file = setting("COMMANDS"); !file.empty()) {
      _commands = bus->listen("lumaren.command", [file](fn::String const&, fn::Value const& body) {
        std::ofstream(file, std::ios::app) << body.toString() << '\n';
      });
    }
    bus->post(CONNECTED, identity);
    _service = fn::AutoPtr<Service>(new Service(worker(), identity));
    worker().registry()->registerObject(_service, 0);
    if (_mode == "idle") {
      _quit = bus->listen(QUIT, [this](fn::String const&, fn::Value const& tag) {
        if (_terminating && tag == fn::Value(initData().workerTag()))
          Module::terminate();
      });
    }
    _identity = std::move(identity);
  }

  bool wantsIdleTermination() override { return _mode == "idle"; }
  bool canTerminate() override { return _mode == "idle"; }

  void terminate() override {
    // The worker has hidden our registry entries by now; the test looks at them before it
    // lets us go.
    _terminating = true;
    ipc::MessageBus::processBus()->post(TERMINATING, _identity);
  }

private:
  fn::String _mode;
  fn::Value _identity;
  bool _terminating = false;
  fn::Handle _quit;
  fn::Handle _commands;
  fn::AutoPtr<Service> _service;
};

}  // namespace
}  // namespace test_modules

LUMAREN_MODULE(test_modules::TestModule, TEST_MODULE_DISPLAY_NAME);

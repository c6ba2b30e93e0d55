// The test module library; what it does and how tests steer it: test_module_library.h.
// Built once per copy with TEST_MODULE_COPY (the copy's name) and TEST_MODULE_DISPLAY_NAME.

#include "test_module_library.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

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

// Picks this launch's mode and records the launch.
fn::String modeOfThisLaunch() {
  std::vector<fn::String> modes = setting("MODE").split(",");
  fn::String launches = setting("LAUNCHES");
  size_t index = 0;
  if (!launches.empty()) {
    std::ifstream in(launches);
    for (std::string line; std::getline(in, line);)
      ++index;
  }
  fn::String mode = modes[std::min(index, modes.size() - 1)].trim();
  if (mode.empty())
    mode = "normal";
  if (!launches.empty()) {
    std::string line = fmt::format("{} {}\n", ::getpid(), mode);
    int fd = ::open(launches.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) {
      [[maybe_unused]] auto written = ::write(fd, line.data(), line.size());
      ::close(fd);
    }
  }
  return mode;
}

[[noreturn]] void crash() {
  // A crash, without leaving a core file behind.
  rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  std::abort();
}

[[noreturn]] void hang() {
  for (;;)
    ::pause();
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
    bool separateProcess = _identity.get("separateProcess").asBool();
    if (method == "whoAmI") {
      sendResult(context, _identity);
    } else if (method == "echo") {
      sendResult(context, argument);
    } else if (method == "exit" || method == "crash") {
      if (!separateProcess)
        throw fn::IllegalStateException("A module inside the hub does not end the hub");
      if (method == "crash")
        crash();
      std::_Exit(static_cast<int>(argument.isInteger() ? argument.asInt() : 0));
    }
  }

private:
  fn::Value _identity;
};

class TestModule : public ipc::Module {
public:
  explicit TestModule(ipc::ModuleInitData const& init) : TestModule(init, modeOfThisLaunch()) {}

protected:
  void onConnected() override {
    fn::Value identity = fn::Value::map({{"module", COPY},
                                         {"tag", initData().workerTag()},
                                         {"pid", ::getpid()},
                                         {"separateProcess", initData().separateProcess()},
                                         {"mode", _mode}});
    auto const& bus = ipc::MessageBus::processBus();
    if (inOwnProcess("crash-after-connect") || inOwnProcess("hang-after-connect")) {
      // Only once our own message came back has everybody else got it too.
      _connected = bus->listen(CONNECTED, [this](fn::String const&, fn::Value const& body) {
        if (body.get("tag") != fn::Value(initData().workerTag()))
          return;
        if (_mode == "crash-after-connect")
          crash();
        hang();
      });
      bus->post(CONNECTED, identity);
      return;
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
  TestModule(ipc::ModuleInitData const& init, fn::String mode)
      : ipc::Module(prepare(init, mode), options(mode)),
        _mode(std::move(mode)) {}

  // What happens before the module connects, and the init data it connects with.
  static ipc::ModuleInitData prepare(ipc::ModuleInitData const& init, fn::String const& mode) {
    if (init.separateProcess() && mode == "crash-before-connect")
      crash();
    if (init.separateProcess() && mode == "never-connect")
      hang();
    if (mode == "never-connect") {
      return ipc::ModuleInitData(init.pipePath(), init.displayName(),
                                 init.workerTag() + "-unmanaged", init.userData(), false);
    }
    return init;
  }

  static ipc::Worker::Options options(fn::String const& mode) {
    ipc::Worker::Options options;
    if (mode == "idle") {
      auto milliseconds = setting("IDLE_MS").toInt();
      options.idleTimeout = fn::Duration::milliseconds(milliseconds ? *milliseconds : 500);
    }
    return options;
  }

  bool inOwnProcess(char const* mode) const {
    return initData().separateProcess() && _mode == mode;
  }

  fn::String _mode;
  fn::Value _identity;
  bool _terminating = false;
  fn::Handle _quit;
  fn::Handle _connected;
  fn::AutoPtr<Service> _service;
};

}  // namespace
}  // namespace test_modules

LUMAREN_MODULE(test_modules::TestModule, TEST_MODULE_DISPLAY_NAME);

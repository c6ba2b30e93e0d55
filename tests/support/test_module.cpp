#include "test_module.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <stdexcept>

#include "core/fraction.h"
#include "core/inspector_registry.h"
#include "core/ipc/message_bus.h"
#include "core/ipc/registry.h"
#include "core/ipc/worker.h"
#include "core/typed_byte_array.h"
#include "peer.h"

namespace testing_support {
namespace {

// Known only inside the module process: the caller has no class of this name.
class ModuleOnlyException : public fn::RuntimeException {
public:
  using RuntimeException::RuntimeException;
  fn::String className() const override { return "ModuleOnlyException"; }
};

// An object the module hands out; it tells the service when it is finally released.
class Child : public ipc::CallableObjectInstance {
public:
  Child(ipc::Worker& worker, std::function<void(ipc::ObjectId)> onGone)
      : ipc::CallableObjectInstance(worker),
        _onGone(std::move(onGone)) {}
  ~Child() override { _onGone(objectId()); }

protected:
  void onMethodCall(CallContext const&, fn::String const&, fn::Value const&) override {}

private:
  std::function<void(ipc::ObjectId)> _onGone;
};

class TestService : public ipc::CallableObjectInstance {
public:
  TestService(ipc::Worker& worker, fn::String name, fn::Value const& lastObjects)
      : ipc::CallableObjectInstance(worker),
        _name(std::move(name)),
        _lastObjects(lastObjects) {}

protected:
  fn::AutoPtr<ipc::ObjectReference> createReference(
      ipc::ObjectReferenceInitializer& initializer) override {
    return fn::AutoPtr<ipc::ObjectReference>(new ServiceReference(initializer));
  }

  void onMethodCallCancelled(CallContext const& context) override {
    postEvent(context.workerId, "cancelled", context.requestId);
  }

  void onMethodCall(CallContext const& context,
                    fn::String const& method,
                    fn::Value const& argument) override {
    if (method == "echo") {
      sendResult(context, argument);
    } else if (method == "whoAmI") {
      sendResult(context, _name);
    } else if (method == "describe") {
      // What this process made of the value types: real objects, not bytes.
      fn::Value described = fn::Value::map();
      if (auto const* fraction = argument.get("fraction").boxed<core::Fraction>())
        described["fraction"] = fraction->toString();
      if (auto const* typed = argument.get("typed").boxed<core::TypedByteArray>()) {
        described["mimeType"] = typed->mimeType();
        described["byteCount"] = typed->bytes().size();
      }
      sendResult(context, described);
    } else if (method == "failStructured") {
      fn::FileException error("cannot open the recording");
      error.info() = structuredErrorInfo();
      sendError(context, error);
    } else if (method == "failObjectDead") {
      sendError(context, ipc::ObjectDeadException("the tuner went away"));
    } else if (method == "failUnknownClass") {
      throw fn::withDetail(ModuleOnlyException("only here"), "private");
    } else if (method == "failValue") {
      sendError(context, fn::Value("disk full"));
    } else if (method == "throwStd") {
      throw std::runtime_error("plain failure");
    } else if (method == "throwOther") {
      throw 42;
    } else if (method == "hold") {
      _held.push_back(context);
    } else if (method == "answerHeld") {
      for (auto const& held : _held)
        sendResult(held, "late answer");
      sendResult(context, _held.size());
      _held.clear();
    } else if (method == "emit") {
      postEvent(context.workerId, "direct", argument);
      broadcastEvent("news", argument);
      sendResult(context, true);
    } else if (method == "makeChild") {
      fn::WeakReference<TestService> service(this);
      fn::AutoPtr<Child> child(new Child(worker(), [service](ipc::ObjectId id) {
        if (auto self = service.lock())
          self->broadcastEvent("released", id);
      }));
      sendResult(context, fn::Value::map({{"child", child}, {"id", child->objectId()}}));
    } else if (method == "keep") {
      // Services kept here relay what they hear, so a test can see which events reached
      // this process.
      if (auto* kept = argument.objectAs<ServiceReference>()) {
        fn::WeakReference<TestService> service(this);
        kept->onEventHeard = [service](fn::String const& name, fn::Value const&) {
          if (auto self = service.lock())
            self->broadcastEvent("heard", name);
        };
      }
      _kept.push_back(argument);
      sendResult(context, _kept.size());
    } else if (method == "inspect") {
      auto const& items = argument.asArray();
      auto* first = items.at(0).objectAs<ipc::ObjectReference>();
      bool same = std::ranges::all_of(items, [first](fn::Value const& item) {
        return item.objectAs<ipc::ObjectReference>() == first;
      });
      sendResult(context,
                 fn::Value::map(
                     {{"listed", _lastObjects.size()},
                      {"usage", first->usageCount()},
                      {"local", first->local()},
                      {"same", same},
                      {"callable", dynamic_cast<ipc::CallableObjectReference*>(first) != nullptr},
                      {"className", first->className()}}));
    } else if (method == "callBack") {
      auto* target = argument.at("target").objectAs<ipc::CallableObjectReference>();
      fn::AutoPtr<TestService> self(this);
      target->callMethod(argument.at("method").asString(), argument.get("argument"))
          .then([self, context](fn::Value result) { self->sendResult(context, result); },
                [self, context](std::exception_ptr error) { self->sendError(context, error); });
    }
  }

private:
  fn::String _name;
  fn::Value const& _lastObjects;
  std::vector<CallContext> _held;
  std::vector<fn::Value> _kept;
};

// What an "inspector=" module shows: its name at the top, a view that leads back to where the
// caller came from, a redirect to that view, one that redirects to itself forever, and a view
// answered later.
class ModuleInspector : public core::Inspector {
public:
  ModuleInspector(fn::String name, fn::RunLoop& loop) : _name(std::move(name)), _loop(loop) {}

  core::InspectionResult inspect(fn::Value const& action, fn::Value const& refererAction) override {
    core::InspectionResult result;
    core::InspectionResultWriter writer(result);
    if (action.isNull())
      writer.append("module " + _name)
          .append("details", "details")
          .append("elsewhere", "elsewhere");
    else if (action == fn::Value("details"))
      writer.append("back", refererAction);
    else if (action == fn::Value("elsewhere"))
      result = core::InspectionResult::redirectTo("details");
    else if (action == fn::Value("circle"))
      result = core::InspectionResult::redirectTo("circle");
    return result;
  }

  void inspect(fn::Value const& action,
               fn::Value const& refererAction,
               CallContext const& context) override {
    if (action != fn::Value("later")) {
      core::Inspector::inspect(action, refererAction, context);
      return;
    }
    fn::AutoPtr<ModuleInspector> self(this);
    _loop.post([self, context] {
      core::InspectionResult result;
      core::InspectionResultWriter(result).append("answered later");
      self->sendResult(context, result);
    });
  }

private:
  fn::String _name;
  fn::RunLoop& _loop;
};

class ModuleDelegate : public ipc::Worker::ClientDelegate {
public:
  std::function<void()> connected;
  void workerDidConnect(ipc::Worker&) override { connected(); }
};

}  // namespace

fn::AutoPtr<ipc::CallableObjectInstance> makeTestService(ipc::Worker& worker,
                                                         fn::String const& name) {
  static fn::Value const noObjects;
  return fn::AutoPtr<ipc::CallableObjectInstance>(new TestService(worker, name, noObjects));
}

fn::ErrorInfo structuredErrorInfo() {
  fn::ErrorInfo info;
  info.detail = "recording 7";
  info.path = "/var/media/rec7.ts";
  info.errnoValue = 2;
  info.uvErrno = -2;
  info.winError = 3;
  info.errorCode = 0x8007;
  info.stackTrace = std::vector<fn::StackFrame>{
      {0x7f0012345678, "libcore.so", "core::Recorder::open", "recorder.cpp", 120},
      {0xFFFFFFFFFFFF0000, "lumaren-module", "main", "main.cpp", 9}};
  return info;
}

int runTestModule(int argc, char** argv) {
  // argv: <exe> --module <name> <pipe path>
  if (argc < 4)
    return 2;
  fn::String name = argv[2];
  fn::String tag = "module-" + name;
  std::optional<int> registerPriority;
  bool busRole = false;
  std::vector<fn::String> inspectors;
  for (std::string_view role : std::span(argv + 4, argc - 4)) {
    if (role.starts_with("register="))
      registerPriority = std::atoi(role.data() + 9);
    else if (role.starts_with("tag="))
      tag = fn::String(role.substr(4));
    else if (role.starts_with("inspector="))
      inspectors.emplace_back(role.substr(10));
    busRole = busRole || role == "bus";
  }
  fn::uv::Loop loop;
  ModuleDelegate delegate;
  ipc::Worker worker(delegate, loop, argv[3], name, tag, false);
  worker.registerObjectReferenceClass<ServiceReference>();
  fn::AutoPtr<TestService> service;
  fn::Value lastObjects;
  fn::Handle records = worker.onRecord().connect([&lastObjects](fn::Value const& record) {
    if (record.get(ipc::key::TYPE) == fn::Value(ipc::type::MESSAGE))
      lastObjects = record.get(ipc::key::OBJECTS);
  });
  fn::Handle lost =
      worker.onDisconnected().connect([&loop](fn::uv::Status const&) { loop.stop(); });
  fn::AutoPtr<ipc::MessageBus> bus;
  fn::AutoPtr<core::InspectorRegistry> inspectorRegistry;
  std::vector<fn::Handle> subscriptions;
  int heard = 0;
  delegate.connected = [&] {
    service = fn::AutoPtr<TestService>(new TestService(worker, name, lastObjects));
    if (registerPriority)
      worker.registry()->registerObject(service, *registerPriority);
    if (!inspectors.empty()) {
      core::InspectorRegistry::lookup(worker).then([&](fn::AutoPtr<core::InspectorRegistry> found) {
        inspectorRegistry = found;
        for (auto const& inspector : inspectors)
          inspectorRegistry->registerInspector(
              inspector, fn::AutoPtr<core::Inspector>(new ModuleInspector(inspector, loop)));
      });
    }
    if (!busRole)
      return;
    ipc::MessageBus::lookup(worker).then([&](fn::AutoPtr<ipc::MessageBus> found) {
      bus = found;
      bus->getStickyMessages().then([&] {
        subscriptions.push_back(
            bus->listen("test.ping", [&](fn::String const&, fn::Value const& body) {
              bus->post("test.pong", fn::Value::map({{"from", name}, {"got", body}}));
            }));
        // Subscribing after the fetch: a stored message is replayed to this late listener.
        subscriptions.push_back(
            bus->listen("test.config", [&](fn::String const&, fn::Value const& body) {
              ++heard;
              auto other = bus->getStickyMessage("test.other");
              bus->post("test.heard", fn::Value::map({{"from", name},
                                                      {"body", body},
                                                      {"count", heard},
                                                      {"other", other.value_or(fn::Value())}}));
            }));
        bus->post("test.ready", name);
      });
    });
  };
  worker.connect();
  loop.run();
  std::fflush(nullptr);
  // The hub is gone, and with it the uses it counted of our instances: they are never handed
  // back, so the process ends here instead of unwinding objects that can no longer be freed.
  std::_Exit(0);
}

std::unique_ptr<ChildProcess> startTestModule(fn::uv::Loop& loop,
                                              fn::String const& name,
                                              fn::String const& pipePath,
                                              std::vector<fn::String> const& roles) {
  std::vector<fn::String> arguments = {"--module", name, pipePath};
  arguments.insert(arguments.end(), roles.begin(), roles.end());
  return ChildProcess::startRole(loop, arguments);
}

}  // namespace testing_support

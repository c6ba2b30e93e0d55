#include "core/inspector_registry.h"

#include <optional>

#include "core/ipc/worker.h"
#include "foundation/byte_array.h"
#include "foundation/logging/category.h"
#include "foundation/uuid.h"

namespace core {
namespace {

fn::logging::Category logInspectorRegistry("core.inspectorRegistry");

fn::String textOf(fn::Value const& value) {
  return value.isString() ? value.asString() : value.toString();
}

}  // namespace

InspectorRegistry::InspectorRegistry(ipc::ObjectReferenceInitializer& initializer)
    : ipc::CallableObjectReference(initializer) {}

fn::Promise<unsigned int> InspectorRegistry::registerInspector(
    fn::String const& name,
    fn::AutoPtr<Inspector> const& inspector) {
  FN_ASSERT_LOOP_THREAD();
  fn::AutoPtr<InspectorImpl> remoteObject;
  try {
    if (!worker())
      throw fn::IllegalStateException("The inspector registry has no worker to serve through");
    remoteObject = InspectorImpl::of(*worker(), inspector);
  } catch (...) {
    return fn::Promise<unsigned int>::rejected(std::current_exception());
  }
  // The call is not chained to the caller's promise: cancelling that must not cancel the
  // call, whose registration the registry may already have made. The answer still arrives,
  // and a registration nobody waits for any more is withdrawn.
  fn::Promise<unsigned int> registered;
  fn::AutoPtr<InspectorRegistry> self(this);
  callMethod("registerInspector", fn::Value::map({{"name", name}, {"reference", remoteObject}}))
      .then(
          [self, registered, remoteObject](fn::Value const& key) mutable {
            if (registered.isCancelled()) {
              if (key.isString())
                self->callMethod("unregisterInspector", key);
              return;
            }
            if (!key.isString()) {
              registered.reject(std::make_exception_ptr(
                  fn::DataFormatException("The inspector registry answered without a key")));
              return;
            }
            unsigned int id = ++self->_lastId;
            self->_registrations[id] = Registration{key.asString(), remoteObject};
            registered.resolve(id);
          },
          [registered](std::exception_ptr error) mutable { registered.reject(error); });
  return registered;
}

fn::Promise<void> InspectorRegistry::unregisterInspector(unsigned int id) {
  FN_ASSERT_LOOP_THREAD();
  auto found = _registrations.find(id);
  if (found == _registrations.end())
    return fn::Promise<void>::resolved();
  fn::String key = found->second.key;
  _registrations.erase(found);
  return callMethod("unregisterInspector", key).then([](fn::Value const&) {});
}

fn::Promise<std::map<fn::String, fn::String>> InspectorRegistry::allInspectors() {
  FN_ASSERT_LOOP_THREAD();
  return callMethod("allInspectors", fn::Value()).then([](fn::Value const& answer) {
    std::map<fn::String, fn::String> inspectors;
    if (answer.isMap()) {
      for (auto const& [key, name] : answer.asMap())
        inspectors.emplace(textOf(key), textOf(name));
    }
    return inspectors;
  });
}

fn::Promise<fn::AutoPtr<InspectorReference>> InspectorRegistry::getInspector(
    fn::String const& key) {
  FN_ASSERT_LOOP_THREAD();
  // Without the class the inspector would arrive as a plain reference and read as unknown.
  if (worker())
    worker()->registerObjectReferenceClass<InspectorReference>();
  return callMethod("getInspector", key).then([](fn::Value const& answer) {
    return fn::AutoPtr<InspectorReference>(answer.objectAs<InspectorReference>());
  });
}

fn::String InspectorRegistry::keyOf(unsigned int id) const {
  auto found = _registrations.find(id);
  return found == _registrations.end() ? fn::String() : found->second.key;
}

fn::Promise<fn::AutoPtr<InspectorRegistry>> InspectorRegistry::lookup(ipc::Worker& worker,
                                                                      fn::Duration timeout) {
  worker.registerObjectReferenceClass<InspectorReference>();
  return ipc::lookupInstance<InspectorRegistry>(worker, timeout);
}

InspectorRegistryImpl::InspectorRegistryImpl(ipc::Worker& worker)
    : ipc::CallableObjectInstance(worker) {}

fn::AutoPtr<ipc::ObjectReference> InspectorRegistryImpl::createReference(
    ipc::ObjectReferenceInitializer& initializer) {
  return fn::AutoPtr<ipc::ObjectReference>(new InspectorRegistry(initializer));
}

void InspectorRegistryImpl::onMethodCall(CallContext const& context,
                                         fn::String const& method,
                                         fn::Value const& argument) {
  FN_ASSERT_LOOP_THREAD();
  if (method == "registerInspector") {
    registerInspector(context, argument);
  } else if (method == "unregisterInspector") {
    unregisterInspector(argument);
    sendResult(context, fn::Value());
  } else if (method == "allInspectors") {
    sendResult(context, allInspectors());
  } else if (method == "getInspector") {
    sendResult(context, getInspector(argument));
  }
}

void InspectorRegistryImpl::registerInspector(CallContext const& context,
                                              fn::Value const& argument) {
  fn::Value const& nameValue = argument.get("name");
  fn::String name = nameValue.isString() ? nameValue.asString() : fn::String();
  fn::AutoPtr<ipc::ObjectReference> reference(
      argument.get("reference").objectAs<ipc::ObjectReference>());
  if (!reference) {
    sendError(context, fn::NullPointerException("An inspector registers with its remote object"));
    return;
  }
  if (reference->dead()) {
    sendError(context, ipc::ObjectDeadException("The inspector is no longer reachable"));
    return;
  }
  // The first inspector of a name gets a key that stays the same from run to run.
  fn::String key = fn::ByteArray(std::string_view(name)).SHA256().base64();
  if (_byKey.contains(key))
    key = fn::UUIDGenerator::defaultGenerator().createOne().toString();
  uint32_t id = ++_lastId;
  _byId[id] = Entry{id, name, key, reference};
  _byKey[key] = id;
  logInspectorRegistry.log(fn::logging::DBG, "Registered inspector {} as {} ({})", name, key, id);

  fn::WeakReference<InspectorRegistryImpl> self(this);
  // Left connected for as long as the reference's signal lives: it fires at most once.
  reference->objectDeadSignal()
      .connect([self, id] {
        if (auto registry = self.lock())
          registry->removeEntry(id);
      })
      .detach();
  sendResult(context, key);
}

void InspectorRegistryImpl::unregisterInspector(fn::Value const& argument) {
  // Our own integer ids, or the key that clients hold.
  std::optional<uint32_t> id;
  if (argument.isString()) {
    auto found = _byKey.find(argument.asString());
    if (found != _byKey.end())
      id = found->second;
  } else if (argument.isInteger()) {
    try {
      id = argument.to<uint32_t>();
    } catch (fn::Exception const&) {
      // Out of range: no such id.
    }
  }
  if (id)
    removeEntry(*id);
}

fn::Value InspectorRegistryImpl::allInspectors() const {
  fn::Value inspectors = fn::Value::map();
  for (auto const& [id, entry] : _byId)
    inspectors[fn::Value(entry.key)] = entry.name;
  return inspectors;
}

fn::Value InspectorRegistryImpl::getInspector(fn::Value const& argument) const {
  auto found = argument.isString() ? _byKey.find(argument.asString()) : _byKey.end();
  if (found == _byKey.end())
    return fn::Value(fn::AutoPtr<ipc::ObjectReference>());
  return fn::Value(_byId.at(found->second).reference);
}

void InspectorRegistryImpl::removeEntry(uint32_t id) {
  auto found = _byId.find(id);
  if (found == _byId.end())
    return;
  logInspectorRegistry.log(fn::logging::DBG, "Unregistered inspector {} ({})", found->second.name,
                           id);
  _byKey.erase(found->second.key);
  _byId.erase(found);
}

fn::AutoPtr<InspectorRegistryImpl> registerInspectorRegistry(ipc::Worker& worker) {
  FN_ASSERT_LOOP_THREAD();
  worker.registerObjectReferenceClass<InspectorRegistry>();
  worker.registerObjectReferenceClass<InspectorReference>();
  fn::AutoPtr<ipc::Registry> registry = worker.registry();
  // The hub's worker takes its own registry only after workerDidConnect, which is where the
  // hub creates the inspector registry: use the instance it already holds.
  if (!registry) {
    if (auto instance = worker.objects().instance(ipc::REGISTRY_OBJECT_ID))
      registry = instance->localReference().cast<ipc::Registry>();
  }
  if (!registry)
    throw fn::IllegalStateException("The worker has no registry yet");
  fn::AutoPtr<InspectorRegistryImpl> inspectorRegistry(new InspectorRegistryImpl(worker));
  registry->registerObject(inspectorRegistry, 0);
  return inspectorRegistry;
}

}  // namespace core

#include "core/ipc/worker_object_manager.h"

#include <vector>

#include "core/fraction.h"
#include "core/ipc/callable_object.h"
#include "core/ipc/object.h"
#include "core/ipc/worker.h"
#include "core/typed_byte_array.h"
#include "foundation/logging/category.h"
#include "foundation/mpack.h"

namespace ipc {
namespace {

fn::logging::Category logFactory("core.ipc.ObjectReferenceFactory");

constexpr int8_t OBJECT_TYPE_CODE = 1;
constexpr int8_t FRACTION_TYPE_CODE = 2;
constexpr int8_t TYPED_BYTE_ARRAY_TYPE_CODE = 3;

// Writes objects as their 8-byte id and collects the side table of class names.
class PayloadSerializer : public fn::mpack::ValueSerializer {
public:
  explicit PayloadSerializer(fn::Value& objects) : _objects(objects) {}

  std::optional<int8_t> serializeObject(fn::Value const& value, fn::OutputStream& out) override {
    if (auto const* fraction = value.boxed<core::Fraction>()) {
      fraction->serialize(out);
      return FRACTION_TYPE_CODE;
    }
    if (auto const* typed = value.boxed<core::TypedByteArray>()) {
      typed->serialize(out);
      return TYPED_BYTE_ARRAY_TYPE_CODE;
    }
    fn::AutoPtr<ObjectReference> reference;
    if (auto* r = value.objectAs<ObjectReference>())
      reference = fn::AutoPtr<ObjectReference>(r);
    else if (auto* instance = value.objectAs<ObjectInstance>())
      reference = instance->localReference();
    if (!reference)
      return std::nullopt;
    ObjectId id = reference->objectId();
    uint8_t bytes[sizeof(ObjectId)];
    for (size_t i = 0; i < sizeof id; ++i)
      bytes[i] = static_cast<uint8_t>(id >> (8 * i));
    out.write(bytes, sizeof bytes);
    fn::Value key(id);
    if (!_objects.isMap())
      _objects = fn::Value::map();
    if (!_objects.contains(key))
      _objects[key] = reference->className();
    return OBJECT_TYPE_CODE;
  }

private:
  fn::Value& _objects;
};

class PayloadDeserializer : public fn::mpack::ValueDeserializer {
public:
  using Resolve = std::function<fn::Value(ObjectId)>;
  explicit PayloadDeserializer(Resolve resolve) : _resolve(std::move(resolve)) {}

  fn::Value deserializeExtension(int8_t typeCode, uint8_t const* data, size_t size) override {
    if (typeCode == FRACTION_TYPE_CODE) {
      fn::MemoryInputStream in(data, size);
      return fn::Value::box(core::Fraction::deserialize(in));
    }
    if (typeCode == TYPED_BYTE_ARRAY_TYPE_CODE) {
      fn::MemoryInputStream in(data, size);
      return fn::Value::box(core::TypedByteArray::deserialize(in));
    }
    if (typeCode != OBJECT_TYPE_CODE)
      return fn::Value();
    // Another process's bytes: refused with the message, never asserted on.
    if (size != sizeof(ObjectId)) {
      throw fn::DataFormatException(
          fmt::format("An object id of {} bytes (size == sizeof(ObjectId) does not hold)", size));
    }
    ObjectId id = 0;
    for (size_t i = 0; i < sizeof id; ++i)
      id |= static_cast<ObjectId>(data[i]) << (8 * i);
    return _resolve(id);
  }

private:
  Resolve _resolve;
};

}  // namespace

WorkerObjectManager::WorkerObjectManager(Worker& worker) : _worker(worker) {}

void WorkerObjectManager::registerInstance(ObjectInstance* instance) {
  _instances[instance->objectId()] = instance;
}

void WorkerObjectManager::unregisterInstance(ObjectInstance* instance) {
  auto found = _instances.find(instance->objectId());
  if (found != _instances.end() && found->second == instance)
    _instances.erase(found);
}

void WorkerObjectManager::registerReference(ObjectReference* reference) {
  _references[reference->objectId()] = reference;
}

bool WorkerObjectManager::unregisterReference(ObjectReference* reference) {
  auto found = _references.find(reference->objectId());
  if (found == _references.end() || found->second != reference)
    return false;
  _references.erase(found);
  return true;
}

fn::AutoPtr<ObjectInstance> WorkerObjectManager::instance(ObjectId id) const {
  auto found = _instances.find(id);
  // An instance whose last reference is gone may still be registered until its posted
  // destruction runs; it must not come back to life.
  if (found == _instances.end() || !found->second->tryRetain())
    return nullptr;
  return fn::AutoPtr<ObjectInstance>::adopt(found->second);
}

fn::AutoPtr<ObjectReference> WorkerObjectManager::reference(ObjectId id) const {
  auto found = _references.find(id);
  if (found == _references.end() || !found->second->tryRetain())
    return nullptr;
  return fn::AutoPtr<ObjectReference>::adopt(found->second);
}

void WorkerObjectManager::registerReferenceClass(fn::String const& className,
                                                 ReferenceCreator creator) {
  _referenceClasses[className] = std::move(creator);
}

fn::AutoPtr<ObjectReference> WorkerObjectManager::createReference(ObjectId id,
                                                                  fn::String const& className) {
  ObjectReferenceInitializer initializer{&_worker, id, nullptr, className};
  auto creator = _referenceClasses.find(className);
  if (creator != _referenceClasses.end())
    return creator->second(initializer);
  logFactory.log(fn::logging::ERR,
                 "Couldn't create reference for class {}. Did you call "
                 "'registerObjectReferenceClass()'?",
                 className);
  // Holding and calling the object still works: a plain callable reference keeps the class
  // name it came with.
  return fn::AutoPtr<ObjectReference>(new CallableObjectReference(initializer));
}

void WorkerObjectManager::encodePayload(fn::Value const& payload,
                                        fn::ByteArray& bytes,
                                        fn::Value& objects) {
  encodePayload(
      [&](fn::mpack::Encoder& out, fn::mpack::ValueSerializer& hook) { out.value(payload, &hook); },
      bytes, objects);
}

void WorkerObjectManager::encodePayload(PayloadWriter write,
                                        fn::ByteArray& bytes,
                                        fn::Value& objects) {
  PayloadSerializer hook(objects);
  fn::mpack::Encoder out(bytes);
  write(out, hook);
}

void WorkerObjectManager::decodePayload(fn::ByteView bytes,
                                        fn::Value const& objects,
                                        fn::Value& out) {
  // The hub counted one use for us of every listed object of another worker, whatever becomes
  // of the payload. The uses go onto the references first (one per message and object, however
  // often the object occurs), so that they are handed back even when the payload turns out
  // malformed: the references go when `listed` does, unless the payload holds them.
  std::vector<fn::AutoPtr<ObjectReference>> listed;
  if (objects.isMap()) {
    listed.reserve(objects.asMap().size());
    for (auto const& [key, name] : objects.asMap()) {
      ObjectId id = key.asUInt();  // the hub counted by the same reading
      if (ownerOf(id) == _worker.workerId())
        continue;
      fn::AutoPtr<ObjectReference> held = reference(id);
      if (!held)
        held = createReference(id, name.isString() ? name.asString() : fn::String());
      held->increaseUsageCount();
      listed.push_back(std::move(held));
    }
  }
  if (bytes.empty()) {
    out = fn::Value();
    return;
  }
  PayloadDeserializer hook([&](ObjectId id) -> fn::Value {
    if (ownerOf(id) == _worker.workerId()) {
      auto local = instance(id);
      return local ? fn::Value(local->localReference()) : fn::Value();
    }
    if (auto held = reference(id))
      return fn::Value(held);
    fn::Value const& name = objects.get(fn::Value(id));
    return fn::Value(createReference(id, name.isString() ? name.asString() : fn::String()));
  });
  fn::mpack::decode(bytes.data(), bytes.size(), out, &hook);
}

void WorkerObjectManager::killReferences(std::function<bool(ObjectId)> const& matches,
                                         bool includeLocal) {
  std::vector<fn::AutoPtr<ObjectReference>> dying;
  for (auto const& [id, reference] : _references) {
    if (!matches(id) || (reference->local() && !includeLocal) || reference->dead())
      continue;
    if (reference->tryRetain())
      dying.push_back(fn::AutoPtr<ObjectReference>::adopt(reference));
  }
  // Mark all first, so that a listener of one death already sees the others as dead.
  for (auto& reference : dying)
    reference->markObjectDead();
  for (auto& reference : dying)
    reference->notifyObjectDead();
}

void WorkerObjectManager::dropRemoteUses() {
  std::vector<fn::AutoPtr<ObjectInstance>> used;
  for (auto const& [id, instance] : _instances) {
    if (instance->usageCount() > 0 && instance->tryRetain())
      used.push_back(fn::AutoPtr<ObjectInstance>::adopt(instance));
  }
  for (auto& instance : used) {
    while (instance->usageCount() > 0)
      instance->decreaseUsageCount();
  }
}

void WorkerObjectManager::workerDied(uint16_t workerId) {
  killReferences([workerId](ObjectId id) { return ownerOf(id) == workerId; });
}

void WorkerObjectManager::abandonAll() {
  killReferences([](ObjectId) { return true; }, true);
}

void WorkerObjectManager::allWorkersDied() {
  uint16_t own = _worker.workerId();
  killReferences([own](ObjectId id) { return ownerOf(id) != own; });
}

bool WorkerObjectManager::busy(std::function<bool(ObjectId)> const& registeredInRegistry) const {
  for (auto const& [id, instance] : _instances) {
    int32_t count = instance->usageCount();
    if (count == 0 || (count == 1 && registeredInRegistry(id)))
      continue;
    return true;
  }
  return false;
}

}  // namespace ipc

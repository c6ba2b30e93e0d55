#include "core/ipc/object.h"

#include "core/ipc/worker.h"
#include "foundation/assert.h"

namespace ipc {

namespace {
ObjectReferenceInitializer dummyInitializer;
}

ObjectReferenceInitializer& ObjectReference::_dummyInitializer = dummyInitializer;

ObjectInstance::ObjectInstance(Worker& worker)
    : _worker(worker),
      _workerLifetime(worker.lifetime()),
      _objectId(worker.nextObjectId()) {
  _worker.registerObjectInstance(this);
  // Until this task ran, the subclass's constructor may still be running: messages sent
  // before then queue behind it.
  fn::AutoPtr<ObjectInstance> self(this);
  _worker.loop().post([self] { self->_ready = true; });
}

ObjectInstance::~ObjectInstance() {
  if (!_workerLifetime.expired())
    _worker.unregisterObjectInstance(this);
}

fn::RunLoop& ObjectInstance::loop() const {
  return _worker.loop();
}

void ObjectInstance::deleteInstance() {
  // Once the worker is gone there is no loop to post to; this happens when the last holder
  // was itself freed by a posted deletion that ran after the worker (the hub's registry).
  if (_workerLifetime.expired()) {
    delete this;
    return;
  }
  _worker.loop().post([this] { delete this; });
}

fn::AutoPtr<ObjectReference> ObjectInstance::localReference() {
  if (auto live = _localReference.lock())
    return live;
  ObjectReferenceInitializer initializer{&_worker, _objectId, fn::AutoPtr<ObjectInstance>(this),
                                         fn::String()};
  fn::AutoPtr<ObjectReference> reference = createReference(initializer);
  _localReference.reset(reference.get());
  return reference;
}

fn::AutoPtr<ObjectReference> ObjectInstance::createReference(
    ObjectReferenceInitializer& initializer) {
  return fn::AutoPtr<ObjectReference>(new ObjectReference(initializer));
}

void ObjectInstance::onMessage(uint16_t, fn::Value const&) {}

void ObjectInstance::sendMessage(uint16_t workerId, fn::Value const& message) {
  if (!_ready) {
    fn::AutoPtr<ObjectInstance> self(this);
    _worker.loop().post([self, workerId, message] {
      if (!self->_workerLifetime.expired())
        self->sendMessage(workerId, message);
    });
    return;
  }
  uint16_t own = _worker.workerId();
  if (workerId != own)
    _worker.sendMessageToWorker(workerId, _objectId, message);
  if (workerId != NO_WORKER && workerId != own)
    return;
  fn::AutoPtr<ObjectReference> reference = _localReference.lock();
  if (!reference)
    return;
  // Deliveries still queued when the worker goes (a hub torn down with work pending) are
  // dropped: the objects would reach into a worker that no longer exists.
  _worker.loop().post([reference, alive = _workerLifetime,
                       converted = replaceInstanesWithReferences(message)]() mutable {
    if (!alive.expired())
      reference->takeMessage(std::move(converted));
  });
}

void ObjectInstance::sendMessage(uint16_t workerId,
                                 WorkerObjectManager::PayloadWriter write,
                                 fn::FunctionRef<fn::Value()> build) {
  if (_ready && workerId != NO_WORKER && workerId != _worker.workerId()) {
    _worker.sendMessageToWorker(workerId, _objectId, write);
    return;
  }
  sendMessage(workerId, build());
}

void ObjectInstance::increateUsageCount() {
  ++_usageCount;
  retain();
}

void ObjectInstance::decreaseUsageCount() {
  --_usageCount;
  release();
}

ObjectReference::ObjectReference(ObjectReferenceInitializer& initializer)
    : _worker(initializer.worker),
      _workerLifetime(initializer.worker ? initializer.worker->lifetime()
                                         : std::weak_ptr<Worker*>()),
      _objectId(initializer.objectId),
      _instance(initializer.instance),
      _className(initializer.className) {
  if (_worker)
    _worker->registerObjectReference(this);
}

ObjectReference::~ObjectReference() {
  if (_worker && !_workerLifetime.expired())
    _worker->unregisterObjectReference(this);
}

void ObjectReference::deleteInstance() {
  if (!_worker || _workerLifetime.expired()) {
    delete this;
    return;
  }
  _worker->loop().post([this] { delete this; });
}

fn::RunLoop& ObjectReference::loop() const {
  return _worker->loop();
}

fn::Signal<>& ObjectReference::objectDeadSignal() {
  if (!_objectDeadSignal)
    _objectDeadSignal = std::make_unique<fn::Signal<>>();
  return *_objectDeadSignal;
}

void ObjectReference::sendMessage(fn::Value const& message) {
  if (_instance) {
    uint16_t own = _worker->workerId();
    _worker->loop().post([instance = _instance, own, alive = _workerLifetime,
                          converted = replaceInstanesWithReferences(message)] {
      if (!alive.expired())
        instance->onMessage(own, converted);
    });
    return;
  }
  _worker->sendMessageToWorker(ownerOf(_objectId), _objectId, message);
}

void ObjectReference::sendMessage(WorkerObjectManager::PayloadWriter write,
                                  fn::FunctionRef<fn::Value()> build) {
  if (_instance) {
    sendMessage(build());
    return;
  }
  _worker->sendMessageToWorker(ownerOf(_objectId), _objectId, write);
}

fn::String ObjectReference::className() const {
  return _className.empty() ? fn::demangledTypeName(typeid(*this)) : _className;
}

fn::String ObjectReference::toString() const {
  return fn::String(
      fmt::format("ObjectReference ({}, {})", className(), static_cast<void const*>(this)));
}

void ObjectReference::onMessage(fn::Value const&) {}

void ObjectReference::takeMessage(fn::Value&& message) {
  onMessage(message);
}
void ObjectReference::onObjectDead() {}

void ObjectReference::increaseUsageCount() {
  FN_ASSERT(!_instance);
  ++_usageCount;
}

void ObjectReference::markObjectDead() {
  _dead = true;
}

void ObjectReference::notifyObjectDead() {
  fn::AutoPtr<ObjectReference> protect(this);
  objectDeadSignal().fireOnce();
  onObjectDead();
}

fn::Value replaceInstanesWithReferences(fn::Value const& value) {
  switch (value.type()) {
    case fn::Value::Type::Map: {
      fn::Value::Map map;
      map.reserve(value.asMap().size());
      for (auto const& [key, item] : value.asMap())
        map.insertOrAssign(key, replaceInstanesWithReferences(item));
      return fn::Value(std::move(map));
    }
    case fn::Value::Type::Array: {
      fn::Value::Array array;
      array.reserve(value.asArray().size());
      for (auto const& item : value.asArray())
        array.push_back(replaceInstanesWithReferences(item));
      return fn::Value(std::move(array));
    }
    case fn::Value::Type::Object:
      if (auto* instance = value.objectAs<ObjectInstance>()) {
        auto reference = instance->localReference();
        FN_ASSERT(reference, "o->localReference()");
        return fn::Value(reference);
      }
      return value;
    default:
      return value;
  }
}

}  // namespace ipc

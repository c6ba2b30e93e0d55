#pragma once

// Object instances and references.
//
// An ObjectInstance lives in exactly one worker (its owner); an ObjectReference is how any
// process, the owner included, talks to it. Both are reference counted and bound to the loop
// thread of their worker, which must outlive them. Messages between them are always posted:
// neither side's onMessage ever runs inside the sender's call.
//
// Lifetime: a local reference holds its instance strongly; the instance holds its local
// reference weakly. While the hub counts remote uses of an instance, the owner holds one strong
// reference per use. A reference becomes dead when its instance's worker goes away; a dead
// reference stays dead and fires objectDeadSignal exactly once.

#include <cstdint>
#include <memory>

#include "core/export.h"
#include "core/ipc/message.h"
#include "core/ipc/worker_object_manager.h"
#include "foundation/exception.h"
#include "foundation/function_ref.h"
#include "foundation/object.h"
#include "foundation/run_loop.h"
#include "foundation/signal.h"

namespace ipc {

class Worker;
class ObjectInstance;
class ObjectReference;

struct CORE_EXPORT ObjectReferenceInitializer {
  Worker* worker = nullptr;
  ObjectId objectId = 0;
  /// Set only for a local reference (the instance lives in this process).
  fn::AutoPtr<ObjectInstance> instance;
  /// The class name as it travels with the object; empty for a local reference.
  fn::String className;
};

class CORE_EXPORT ObjectDeadException : public fn::RuntimeException {
public:
  using fn::RuntimeException::RuntimeException;
  fn::String className() const override { return "ObjectDeadException"; }
};

class CORE_EXPORT ObjectInstance : public fn::RefCountedObject {
public:
  explicit ObjectInstance(Worker& worker);

  ObjectId objectId() const { return _objectId; }
  Worker& worker() const { return _worker; }
  fn::RunLoop& loop() const;

  /// The one local reference of this instance, created on demand.
  fn::AutoPtr<ObjectReference> localReference();

  /// Delivers `message` to the references in worker `workerId`; NO_WORKER reaches all.
  void sendMessage(uint16_t workerId, fn::Value const& message);
  /// The same for a message that goes straight to the wire when it goes to another process
  /// alone: `write` encodes it there; `build` makes it as a value for holders in this
  /// process, and while the instance is still being set up.
  void sendMessage(uint16_t workerId,
                   WorkerObjectManager::PayloadWriter write,
                   fn::FunctionRef<fn::Value()> build);
  void broadcast(fn::Value const& message) { sendMessage(NO_WORKER, message); }

  int32_t usageCount() const { return _usageCount; }

protected:
  ~ObjectInstance() override;
  /// Destruction is posted to the loop, so an instance never dies inside a call on it.
  void deleteInstance() override;

  virtual void onMessage(uint16_t sourceWorkerId, fn::Value const& message);
  virtual fn::AutoPtr<ObjectReference> createReference(ObjectReferenceInitializer& initializer);

private:
  friend class Worker;
  friend class WorkerObjectManager;
  friend class ObjectReference;

  // The spelling of the first is the exported name and is kept on purpose.
  void increateUsageCount();
  void decreaseUsageCount();

  Worker& _worker;
  std::weak_ptr<Worker*> _workerLifetime;
  ObjectId _objectId;
  fn::WeakReference<ObjectReference> _localReference;
  bool _ready = false;
  int32_t _usageCount = 0;
};

class CORE_EXPORT ObjectReference : public fn::RefCountedObject {
public:
  explicit ObjectReference(ObjectReferenceInitializer& initializer);

  ObjectId objectId() const { return _objectId; }
  Worker* worker() const { return _worker; }
  fn::RunLoop& loop() const;
  bool local() const { return static_cast<bool>(_instance); }
  bool dead() const { return _dead; }
  /// Fires once when the instance becomes unreachable.
  fn::Signal<>& objectDeadSignal();

  /// Delivers `message` to the instance, posted.
  void sendMessage(fn::Value const& message);
  /// The same for a message that goes straight to the wire when the instance lives in another
  /// process: `write` encodes it there; `build` makes it as a value for a local instance.
  void sendMessage(WorkerObjectManager::PayloadWriter write, fn::FunctionRef<fn::Value()> build);

  /// The class name that travelled with the object, or the demangled name of this class.
  virtual fn::String className() const;
  fn::String toString() const override;
  int32_t usageCount() const { return _usageCount; }

  /// An initializer without a worker, for building throw-away references (to read their
  /// class name).
  static ObjectReferenceInitializer& _dummyInitializer;

protected:
  ~ObjectReference() override;
  void deleteInstance() override;

  virtual void onMessage(fn::Value const& message);
  /// A message delivered to this reference alone, which it may take apart instead of copying
  /// from it; hands it to onMessage by default.
  virtual void takeMessage(fn::Value&& message);
  virtual void onObjectDead();

private:
  friend class Worker;
  friend class WorkerObjectManager;
  friend class ObjectInstance;

  void increaseUsageCount();
  void markObjectDead();
  void notifyObjectDead();

  Worker* _worker;
  std::weak_ptr<Worker*> _workerLifetime;
  ObjectId _objectId;
  fn::AutoPtr<ObjectInstance> _instance;
  std::unique_ptr<fn::Signal<>> _objectDeadSignal;
  fn::String _className;
  bool _dead = false;
  int32_t _usageCount = 0;
};

/// A copy of `value` in which every instance is replaced by its local reference, so that
/// local receivers see references just as remote ones do.
CORE_EXPORT fn::Value replaceInstanesWithReferences(fn::Value const& value);

}  // namespace ipc

#pragma once

// The registry: the system-wide directory of services, by class name.
//
// One RegistryImpl lives in the hub's own worker as object 0 (REGISTRY_OBJECT_ID); every
// worker reaches it through its Registry reference (Worker::registry()). Both are loop-bound:
// all calls on the owning worker's loop thread. The registry holds a reference to each
// registered instance, so a registered instance stays alive through the hub's usage counting
// until its worker dies; the entry goes away with it. Lookups that find nothing visible wait
// until an instance of the class is registered or shown again, or until their time-out, when
// they fail with OperationTimedOutException. Destroying the RegistryImpl cancels the timers of
// its waiters; their callers' calls fail only when the hub's worker goes away.

#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "core/export.h"
#include "core/ipc/callable_object.h"
#include "core/ipc/worker.h"
#include "foundation/duration.h"
#include "foundation/exception.h"
#include "foundation/handle.h"
#include "foundation/promise.h"

namespace ipc {

/// How long a lookup waits for an instance when the caller does not say.
inline constexpr fn::Duration DEFAULT_LOOKUP_TIMEOUT = fn::Duration::seconds(20);

class CORE_EXPORT Registry : public CallableObjectReference {
public:
  explicit Registry(ObjectReferenceInitializer& initializer);

  /// The same on every platform, whatever the compiler's type names.
  fn::String className() const override { return "ipc::Registry"; }

  /// Publishes `instance` under its class name. Among instances of one class the highest
  /// priority wins, and among equal priorities the one registered last.
  fn::Promise<void> registerObject(fn::AutoPtr<ObjectInstance> const& instance, int priority = 0);

  /// The current instance of `className`, as a reference value; waits up to `timeout` for one
  /// to be registered.
  fn::Promise<fn::Value> getInstance(fn::String const& className,
                                     fn::Duration timeout = DEFAULT_LOOKUP_TIMEOUT);

private:
  friend class Worker;

  /// Hides (or shows again) every entry of this process, for the termination handshake.
  fn::Promise<void> setInstancesHidden(bool hidden);
  bool isInstanceRegistered(fn::AutoPtr<ObjectInstance> const& instance) const;
  bool isInstanceRegistered(ObjectId id) const;

  // Instances of one worker are told apart by their id.
  std::set<ObjectId> _registeredInstances;
};

class CORE_EXPORT RegistryImpl : public CallableObjectInstance {
public:
  explicit RegistryImpl(Worker& worker);

  /// For diagnostics and tests.
  size_t waiterCount() const { return _waiters.size(); }
  size_t entryCount(fn::String const& className) const;
  struct EntryInfo {
    fn::String className;
    ObjectId objectId = 0;
    int32_t priority = 0;
    bool hidden = false;
  };
  /// Every entry, by class name, each class's entries in the order they were registered.
  std::vector<EntryInfo> entries() const;

protected:
  fn::AutoPtr<ObjectReference> createReference(ObjectReferenceInitializer& initializer) override;
  void onMethodCall(CallContext const& context,
                    fn::String const& method,
                    fn::Value const& argument) override;

private:
  struct Entry {
    fn::AutoPtr<ObjectReference> reference;
    int32_t priority = 0;
    bool hidden = false;
  };
  struct Waiter {
    uint64_t id = 0;
    CallContext context;
    fn::Handle timer;
  };

  void registerInstance(CallContext const& context, fn::Value const& argument);
  void getInstance(CallContext const& context, fn::Value const& argument);
  void setInstancesHidden(CallContext const& context, bool hidden);
  void removeEntry(fn::String const& className, ObjectId id);
  void answerWaiters(fn::String const& className, fn::AutoPtr<ObjectReference> const& reference);
  void waiterTimedOut(fn::String const& className, uint64_t id);

  std::map<fn::String, std::vector<Entry>> _registrations;
  std::multimap<fn::String, Waiter> _waiters;
  uint64_t _lastWaiterId = 0;
};

/// The registered instance of `ReferenceClass`'s class name, as a `ReferenceClass`: teaches
/// `worker` that reference class first, then asks its registry, waiting up to `timeout`.
/// IllegalStateException before the worker connected; NullPointerException when the registry
/// answers with something else.
template <typename ReferenceClass>
fn::Promise<fn::AutoPtr<ReferenceClass>> lookupInstance(
    Worker& worker,
    fn::Duration timeout = DEFAULT_LOOKUP_TIMEOUT) {
  FN_ASSERT_LOOP_THREAD();
  worker.registerObjectReferenceClass<ReferenceClass>();
  if (!worker.registry())
    return fn::Promise<fn::AutoPtr<ReferenceClass>>::rejected(
        std::make_exception_ptr(fn::IllegalStateException("The worker has no registry yet")));
  fn::AutoPtr<ReferenceClass> probe(new ReferenceClass(ObjectReference::_dummyInitializer));
  fn::String className = probe->className();
  return worker.registry()
      ->getInstance(className, timeout)
      .then([className](fn::Value const& result) {
        fn::AutoPtr<ReferenceClass> found(result.objectAs<ReferenceClass>());
        if (!found)
          throw fn::NullPointerException("The registry answered without an instance of " +
                                         className);
        return found;
      });
}

}  // namespace ipc

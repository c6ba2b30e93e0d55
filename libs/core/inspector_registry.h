#pragma once

// The system-wide directory of inspectors.
//
// One InspectorRegistryImpl lives in the hub's own worker (registerInspectorRegistry, called
// by the dispatcher once its worker is connected) and is published in the registry under
// "core::InspectorRegistry"; every process reaches it through an InspectorRegistry reference
// (InspectorRegistry::lookup). Both are loop-bound: everything runs on the owning worker's
// loop thread, and every promise continuation runs posted to the caller's loop.
//
// Keys and ids. The registry files each inspector under a key: the base64 SHA-256 digest of its
// name, so the first inspector of a name has a key that stays the same across runs, or a fresh
// UUID string when that key is taken. "registerInspector" answers with that key. Callers, though,
// hold an unsigned integer id: the InspectorRegistry reference issues it (per reference object,
// counting from 1), remembers which key it stands for and holds the inspector's remote object
// until unregisterInspector(id), which sends "unregisterInspector" with the key. The registry
// keeps integer ids of its own and accepts either one of those or a key there; unknown ones are
// not an error. Because the id lives in the reference object, a process keeps its
// InspectorRegistry as long as it may want to unregister.
//
// The registry holds a reference to each inspector's remote object, which keeps it alive
// through the hub's usage counting. When the inspector's process dies, its entry goes away, so
// allInspectors() never lists an inspector that can no longer answer.

#include <cstdint>
#include <map>

#include "core/export.h"
#include "core/inspector.h"
#include "core/ipc/callable_object.h"
#include "core/ipc/registry.h"
#include "foundation/duration.h"
#include "foundation/promise.h"

namespace ipc {
class Worker;
}

namespace core {

class CORE_EXPORT InspectorRegistry : public ipc::CallableObjectReference {
public:
  explicit InspectorRegistry(ipc::ObjectReferenceInitializer& initializer);

  /// The name the registry is published under, the same on every platform.
  fn::String className() const override { return "core::InspectorRegistry"; }

  /// Publishes `inspector` under `name`, through a remote object made in this reference's
  /// worker; the promise gives the id to unregister it with. Cancelling before the answer
  /// arrived withdraws the registration once it has been made.
  fn::Promise<unsigned int> registerInspector(fn::String const& name,
                                              fn::AutoPtr<Inspector> const& inspector);
  /// Withdraws the registration `id` and lets go of its remote object; an unknown id is
  /// not an error.
  fn::Promise<void> unregisterInspector(unsigned int id);
  /// Every registered inspector: key to name.
  fn::Promise<std::map<fn::String, fn::String>> allInspectors();
  /// The inspector filed under `key`, or null when the key is unknown.
  fn::Promise<fn::AutoPtr<InspectorReference>> getInspector(fn::String const& key);

  /// The key that the registration `id` got, or an empty text for an unknown id.
  fn::String keyOf(unsigned int id) const;

  /// The inspector registry as `worker` finds it in the registry. Registers the reference
  /// classes of this file with `worker` first, so that the registry and the inspectors arrive
  /// as themselves.
  static fn::Promise<fn::AutoPtr<InspectorRegistry>> lookup(
      ipc::Worker& worker,
      fn::Duration timeout = ipc::DEFAULT_LOOKUP_TIMEOUT);

private:
  struct Registration {
    fn::String key;
    fn::AutoPtr<InspectorImpl> remoteObject;
  };

  unsigned int _lastId = 0;
  std::map<unsigned int, Registration> _registrations;
};

class CORE_EXPORT InspectorRegistryImpl : public ipc::CallableObjectInstance {
public:
  explicit InspectorRegistryImpl(ipc::Worker& worker);

  /// For diagnostics and tests.
  size_t inspectorCount() const { return _byId.size(); }

protected:
  fn::AutoPtr<ipc::ObjectReference> createReference(
      ipc::ObjectReferenceInitializer& initializer) override;
  void onMethodCall(CallContext const& context,
                    fn::String const& method,
                    fn::Value const& argument) override;

private:
  struct Entry {
    uint32_t id = 0;
    fn::String name;
    fn::String key;
    fn::AutoPtr<ipc::ObjectReference> reference;
  };

  void registerInspector(CallContext const& context, fn::Value const& argument);
  void unregisterInspector(fn::Value const& argument);
  fn::Value allInspectors() const;
  fn::Value getInspector(fn::Value const& argument) const;
  void removeEntry(uint32_t id);

  uint32_t _lastId = 0;
  std::map<uint32_t, Entry> _byId;
  std::map<fn::String, uint32_t> _byKey;
};

/// Creates the inspector registry in `worker`, teaches `worker` the reference classes of
/// inspectors and publishes the registry at priority 0. The hub's dispatcher calls it for its
/// own worker.
CORE_EXPORT fn::AutoPtr<InspectorRegistryImpl> registerInspectorRegistry(ipc::Worker& worker);

}  // namespace core

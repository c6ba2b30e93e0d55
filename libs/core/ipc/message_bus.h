#pragma once

// The message bus across processes.
//
// One MessageBusImpl lives in the hub's own worker and is published in the registry; every
// process holds an ipc::MessageBus, which is its local fn::MessageBus and at the same time a
// reference to that one instance. A message posted anywhere travels to the hub, which relays
// it to every process holding the bus, the sender's included; only then do local listeners
// hear it, posted on the loop like every fn::MessageBus delivery. The hub keeps the last
// sticky message of each namespace so that a process that starts later can fetch them with
// getStickyMessages().
//
// Loop-bound: everything on the owning worker's loop thread. A dead bus reference (the hub is
// gone) sends nothing that arrives and hears nothing more.

#include <map>

#include "core/export.h"
#include "core/ipc/callable_object.h"
#include "core/ipc/registry.h"
#include "foundation/message_bus.h"
#include "foundation/promise.h"

namespace ipc {

class CORE_EXPORT MessageBus : public fn::MessageBus, public CallableObjectReference {
public:
  explicit MessageBus(ObjectReferenceInitializer& initializer);

  /// The name the bus is registered under, the same on every platform.
  fn::String className() const override { return "ipc::MessageBus"; }

  /// Sends the message through the hub; nothing is delivered here before it comes back.
  void sendMessage(fn::String const& name, fn::Value&& body, bool sticky) override;

  /// Fetches the sticky messages the hub keeps and delivers each once, as sticky.
  fn::Promise<void> getStickyMessages();

  /// The bus as `worker` finds it in the registry. Registers this reference class with
  /// `worker` first, so that the bus arrives as one.
  static fn::Promise<fn::AutoPtr<MessageBus>> lookup(Worker& worker,
                                                     fn::Duration timeout = DEFAULT_LOOKUP_TIMEOUT);

  /// The bus of this process: set once the first module of the process found it (see
  /// ipc::Module), or by the hub for its own worker; null before that and again once that
  /// worker is gone. Loop thread only.
  static fn::AutoPtr<MessageBus> const& processBus();
  /// Makes `bus` the process's bus (null: none) and the upstream of fn::MessageBus::instance(),
  /// which from then on posts through it and hears what it hears. The process-wide bus then
  /// fetches the sticky messages the hub keeps, so that a state set before this process
  /// started reaches its listeners; the promise settles once they were handed to it (also
  /// when the fetch failed, which is logged).
  static fn::Promise<void> setProcessBus(fn::AutoPtr<MessageBus> bus);

protected:
  void onEvent(fn::String const& name, fn::Value const& argument) override;
};

class CORE_EXPORT MessageBusImpl : public CallableObjectInstance {
public:
  explicit MessageBusImpl(Worker& worker);

  /// The stored sticky bodies by namespace, for diagnostics and tests.
  std::map<fn::String, fn::Value> const& stickyMessages() const { return _sticky; }

protected:
  void onMessage(uint16_t sourceWorkerId, fn::Value const& message) override;
  void onMethodCall(CallContext const& context,
                    fn::String const& method,
                    fn::Value const& argument) override;
  fn::AutoPtr<ObjectReference> createReference(ObjectReferenceInitializer& initializer) override;

private:
  std::map<fn::String, fn::Value> _sticky;
};

}  // namespace ipc

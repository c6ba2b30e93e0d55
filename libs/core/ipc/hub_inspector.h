#pragma once

// The hub's view of itself: an inspector named "Hub" and a monitor of the records it routes.
//
// The inspector's top level leads to three views: "workers" (one item per connection: id,
// display name, tag, process id, connected since, records and bytes in and out, bytes queued,
// uses held), "registry" (one item per entry: class, priority, hidden, owner) and "sticky"
// (the namespaces of the kept sticky bus messages). Each item's text is one line of JSON, so
// tools print it as it comes. The monitor (ipc::HubMonitor, published in the registry) sends
// each worker that attached one text line per record the hub receives that matches its
// filter, leaving out the records to and from that worker itself; with no worker attached the
// dispatcher has no monitor set. Both live in the hub's own worker, on its loop thread.

#include <vector>

#include "core/export.h"
#include "core/inspector.h"
#include "core/ipc/callable_object.h"
#include "core/ipc/dispatcher.h"
#include "foundation/signal.h"

namespace ipc {

class CORE_EXPORT HubInspector : public core::Inspector {
public:
  explicit HubInspector(Dispatcher& dispatcher) : _dispatcher(dispatcher) {}
  core::InspectionResult inspect(fn::Value const& action, fn::Value const& refererAction) override;

private:
  Dispatcher& _dispatcher;
};

class CORE_EXPORT HubMonitorImpl : public CallableObjectInstance, private Dispatcher::Monitor {
public:
  HubMonitorImpl(Worker& worker, Dispatcher& dispatcher);
  ~HubMonitorImpl() override;
  /// The dispatcher is going: the monitor may outlive it by a posted task or two.
  void dispatcherGone();

protected:
  fn::AutoPtr<ObjectReference> createReference(ObjectReferenceInitializer& initializer) override;
  /// "attach" with a map of optional "worker" and "object" ids: answers null, then sends the
  /// caller an event "record" with a line of text per matching record.
  void onMethodCall(CallContext const& context,
                    fn::String const& method,
                    fn::Value const& argument) override;

private:
  struct Watcher {
    uint16_t workerId;
    std::optional<uint16_t> worker;
    std::optional<ObjectId> object;
  };
  void received(Dispatcher::WorkerInfo const& from,
                fn::Value const& record,
                size_t length) override;
  void workerGone(uint16_t workerId);

  Dispatcher* _dispatcher;
  std::vector<Watcher> _watchers;
  fn::Handle _disconnected;
};

/// The monitor as a tool sees it.
class CORE_EXPORT HubMonitor : public CallableObjectReference {
public:
  explicit HubMonitor(ObjectReferenceInitializer& initializer);
  fn::String className() const override { return "ipc::HubMonitor"; }
  /// Starts the lines; `worker` and `object` narrow them when given.
  fn::Promise<fn::Value> attach(std::optional<uint16_t> worker, std::optional<ObjectId> object);
  /// One line per record, as the hub renders it.
  fn::Signal<fn::String const&>& onRecord() { return _onRecord; }

protected:
  void onEvent(fn::String const& name, fn::Value const& argument) override;

private:
  fn::Signal<fn::String const&> _onRecord;
};

}  // namespace ipc

#pragma once

// ipc::Dispatcher: the hub of the object framework.
//
// Owned by the host process and bound to the loop it is given; everything runs on that loop's
// thread without locks. It owns the pipe, accepts one connection per process (only from the
// same user), assigns worker ids, routes object messages, keeps the usage accounting that tells
// owners when nobody uses their objects any more, pings every worker and tells everybody when
// one goes away. Its own worker ("DispatcherWorker") connects like any other and becomes
// worker 0; once connected it hosts the registry (object 0), the message bus and the inspector
// registry.
//
// Signals fire on the loop thread: onWorkerConnected after a HELLO, onWorkerNotResponding once
// per PING left unanswered for the whole time-out, onWorkerDisconnected after a connection
// ended and the others were told. Destroying the dispatcher closes every connection and
// removes the pipe.

#include <set>
#include <unordered_map>

#include "core/export.h"
#include "core/ipc/message.h"
#include "core/ipc/message_helper.h"
#include "core/ipc/raw_message.h"
#include "core/ipc/usage_table.h"
#include "core/ipc/worker.h"
#include "foundation/duration.h"
#include "foundation/handle.h"
#include "foundation/signal.h"
#include "foundation/uv/loop.h"
#include "foundation/uv/pipe_stream.h"

namespace core {
class InspectorRegistry;
class InspectorRegistryImpl;
}  // namespace core

namespace ipc {

class RegistryImpl;
class MessageBusImpl;
class HubMonitorImpl;

class CORE_EXPORT Dispatcher : private Worker::Delegate {
public:
  struct WorkerInfo {
    uint16_t workerId = NO_WORKER;
    fn::String displayName;
    fn::String tag;
  };

  /// What the hub knows of one connection, for diagnostics.
  struct WorkerStatus {
    WorkerInfo info;
    int64_t processId = -1;      ///< -1 when the platform cannot tell
    int64_t connectedSince = 0;  ///< milliseconds since the Unix epoch
    uint64_t recordsIn = 0;
    uint64_t bytesIn = 0;
    uint64_t recordsOut = 0;
    uint64_t bytesOut = 0;
    size_t bytesQueued = 0;
    uint64_t usesHeld = 0;  ///< uses of other workers' objects it holds
  };

  /// Sees every record the hub receives from a worker while it is set (see setMonitor).
  class CORE_EXPORT Monitor {
  public:
    virtual ~Monitor();
    /// `length` is the size of the record's frame body.
    virtual void received(WorkerInfo const& from, fn::Value const& record, size_t length) = 0;
  };

  struct Options {
    size_t maxFrameSize = DEFAULT_MAX_FRAME_SIZE;
    /// A worker with more bytes than this queued for it has stopped reading: its connection
    /// is ended.
    size_t maxQueuedBytes = DEFAULT_MAX_QUEUED_BYTES;
  };

  /// `timeout` is the liveness time-out: a worker is pinged every third of it and reported
  /// not responding when a PING stays unanswered for all of it.
  Dispatcher(fn::uv::Loop& loop, fn::Duration const& timeout);
  Dispatcher(fn::uv::Loop& loop, fn::Duration const& timeout, Options options);
  ~Dispatcher() override;
  Dispatcher(Dispatcher const&) = delete;
  Dispatcher& operator=(Dispatcher const&) = delete;

  void bind();
  void start();
  /// Tells every worker that the hub is about to quit, then after `timeout` stops the loop
  /// and calls `callback`.
  void stop(fn::Duration const& timeout, std::move_only_function<void()> callback);

  fn::String pipePath() const { return _pipePath; }
  fn::uv::Loop& loop() { return _loop; }
  fn::AutoPtr<fn::uv::PipeStream> const& pipeStream() const { return _pipeStream; }
  Worker& worker() { return _worker; }
  /// The registry, the message bus and the inspector registry the hub's worker hosts; null
  /// until it connected.
  fn::AutoPtr<RegistryImpl> const& registry() const { return _registry; }
  fn::AutoPtr<MessageBusImpl> const& messageBus() const { return _messageBus; }
  fn::AutoPtr<core::InspectorRegistryImpl> const& inspectorRegistry() const {
    return _inspectorRegistry;
  }

  fn::Signal<WorkerInfo const&>& onWorkerConnected() { return _onWorkerConnected; }
  fn::Signal<WorkerInfo const&>& onWorkerNotResponding() { return _onWorkerNotResponding; }
  fn::Signal<WorkerInfo const&>& onWorkerDisconnected() { return _onWorkerDisconnected; }

  /// Accounting, for diagnostics and tests: the uses the hub counts for an instance, and the
  /// uses a worker holds of an object.
  uint32_t instanceUsageCount(ObjectId id) const;
  uint32_t referenceUsageCount(ObjectId id, uint16_t workerId) const;
  size_t connectionCount() const { return _connections.size(); }
  /// Every connection, in the order of their worker ids (those without one last).
  std::vector<WorkerStatus> workerStatuses() const;

  /// Sets (or with null removes) the one monitor. While none is set, routing pays one test of
  /// a pointer per record; while one is, every record is decoded so that it can see it.
  void setMonitor(Monitor* monitor) { _monitor = monitor; }
  bool monitored() const { return _monitor != nullptr; }

private:
  class WorkerConnection;
  using Connection = fn::AutoPtr<WorkerConnection>;

  void onConnection(fn::uv::Status const& status);
  void onHello(Connection const& connection, fn::Value const& record);
  void onMessage(Connection const& connection, fn::Value record);
  void onReferenceRelease(Connection const& connection, fn::Value const& record);
  void onWorkerMessage(Connection const& connection, fn::Value record, size_t length);
  void forwardMessageToWorker(Connection const& target, fn::Value const& record);
  bool forwardRawMessage(WorkerConnection& connection, uint8_t const* body, size_t length);
  void forwardRawMessageToWorker(Connection const& target, uint16_t source);
  void checkQueue(Connection const& connection);
  void endOverflowingConnection(Connection const& connection);
  void countInstanceUses(uint16_t source, std::vector<ObjectId> const& objects);
  void collectTargets(uint16_t target, ObjectId objectId);
  void releaseUnheld(uint16_t source, std::vector<ObjectId> const& objects);
  void increaseUsageCount(ObjectId objectId, uint16_t workerId);
  void releaseInstance(ObjectId objectId);
  uint16_t nextWorkerId() { return _workerIdCounter++; }
  /// The connection of worker `id`, or null.
  Connection const* workerConnection(uint16_t id) const {
    return id < _workers.size() && _workers[id] ? &_workers[id] : nullptr;
  }
  void onWorkerEOS(Connection const& connection);
  void workerDied(Connection const& connection);
  void scheduleNextPing(Connection const& connection);
  void sendPing(Connection const& connection);
  void send(Connection const& connection, fn::Value const& record);

  void workerDidConnect(Worker& worker) override;
  bool wantsIdleTermination(Worker& worker) override;
  bool workerCanTerminate(Worker& worker) override;
  void workerRequestsTermination(Worker& worker) override;
  void aboutToQuit(Worker& worker) override;

  fn::uv::Loop& _loop;
  fn::Duration _timeout;
  Options _options;
  fn::String _pipePath;
  fn::AutoPtr<fn::uv::PipeStream> _pipeStream;
  std::set<Connection> _connections;
  // The connections that said HELLO, by worker id. Ids are handed out in sequence, so a
  // vector indexed by id finds a message's target without hashing; it reaches only as far as
  // the highest id connected (at most 65,536 pointers).
  std::vector<Connection> _workers;
  UsageTable _usage;
  uint16_t _workerIdCounter = 0;
  // The MESSAGE being routed: as it came (raw), its decoded object ids, and the connections it
  // goes to; reused for each.
  RawMessage _rawMessage;
  std::vector<ObjectId> _objectIds;
  std::vector<Connection> _targets;
  std::vector<uint16_t> _holders;
  Monitor* _monitor = nullptr;
  Worker _worker;
  fn::AutoPtr<RegistryImpl> _registry;
  fn::AutoPtr<MessageBusImpl> _messageBus;
  fn::AutoPtr<core::InspectorRegistryImpl> _inspectorRegistry;
  fn::AutoPtr<HubMonitorImpl> _hubMonitor;
  // Holds the hub inspector's registration.
  fn::AutoPtr<core::InspectorRegistry> _inspectors;
  fn::Signal<WorkerInfo const&> _onWorkerConnected;
  fn::Signal<WorkerInfo const&> _onWorkerNotResponding;
  fn::Signal<WorkerInfo const&> _onWorkerDisconnected;
};

}  // namespace ipc

#include "core/ipc/dispatcher.h"

#include <algorithm>
#include <chrono>

#include "core/inspector_registry.h"
#include "core/ipc/hub_inspector.h"
#include "core/ipc/message_bus.h"
#include "core/ipc/payload.h"
#include "core/ipc/pipe_path.h"
#include "core/ipc/registry.h"
#include "foundation/assert.h"
#include "foundation/file.h"
#include "foundation/logging/category.h"

namespace ipc {
namespace {
fn::logging::Category logDispatcher("ipc.dispatcher");
}

class Dispatcher::WorkerConnection : public fn::RefCountedObject {
public:
  WorkerConnection(Dispatcher& dispatcher, fn::AutoPtr<fn::uv::PipeStream> stream)
      : dispatcher(dispatcher),
        stream(std::move(stream)),
        reader(dispatcher._options.maxFrameSize) {
    // The reader lives as long as the connection; each handler keeps the connection alive for
    // the length of the call.
    // The read callback keeps the connection alive while its frames are handled.
    reader.onFrame([this](uint8_t const* body, size_t length) {
      return this->dispatcher.forwardRawMessage(*this, body, length);
    });
    reader.onMessage([this](fn::Value record, size_t length) {
      Connection self(this);
      this->dispatcher.onWorkerMessage(self, std::move(record), length);
    });
    reader.onEndOfStream([this] {
      Connection self(this);
      this->dispatcher.onWorkerEOS(self);
    });
    reader.onError([this](fn::uv::Status const& status) {
      Connection self(this);
      logDispatcher.log(fn::logging::ERR, "Received read error {} from {}", status.toString(),
                        info.displayName);
      this->dispatcher.onWorkerEOS(self);
    });
  }

  void const* address() const { return this; }

  Dispatcher& dispatcher;
  WorkerInfo info;
  fn::AutoPtr<fn::uv::PipeStream> stream;
  fn::Handle notRespondingTimer;
  fn::Handle nextPingTimer;
  // Ends the connection of a worker that stopped reading, from a task of its own: the queue
  // overflows in the middle of routing or of telling everybody about a death.
  fn::Handle overflowTimer;
  MessageReader reader;
  bool ended = false;
  bool overflowed = false;
  int64_t processId = -1;
  int64_t connectedSince = 0;
  uint64_t recordsIn = 0;
  uint64_t bytesIn = 0;
  uint64_t recordsOut = 0;
  uint64_t bytesOut = 0;
};

Dispatcher::Dispatcher(fn::uv::Loop& loop, fn::Duration const& timeout)
    : Dispatcher(loop, timeout, Options()) {}

Dispatcher::Dispatcher(fn::uv::Loop& loop, fn::Duration const& timeout, Options options)
    : _loop(loop),
      _timeout(timeout),
      _options(options),
      _pipePath(makePipePath()),
      _worker(*this, loop, _pipePath, "DispatcherWorker", "", false) {}

Dispatcher::~Dispatcher() {
  for (auto const& connection : _connections) {
    connection->reader.stop();
    connection->notRespondingTimer.invalidate();
    connection->nextPingTimer.invalidate();
    connection->overflowTimer.invalidate();
    connection->stream->close();
  }
  _connections.clear();
  _workers.clear();
  // Nobody is left to release the uses counted on the registry, the bus and what else the
  // hub's worker handed out; giving them up lets those objects go with the worker.
  _worker.objects().dropRemoteUses();
  if (_hubMonitor)
    _hubMonitor->dispatcherGone();
  _hubMonitor.reset();
  _inspectors.reset();
  _inspectorRegistry.reset();
  _messageBus.reset();
  _registry.reset();
  _worker.stop();
  if (_pipeStream) {
    _pipeStream->close();
    fn::File(_pipePath).remove();
  }
}

void Dispatcher::bind() {
  FN_ASSERT_LOOP_THREAD();
  if (fn::File(_pipePath).exists())
    fn::File(_pipePath).remove();
  _pipeStream = fn::uv::PipeStream::create(_loop);
  _pipeStream->bind(_pipePath).throwOnError();
}

void Dispatcher::start() {
  FN_ASSERT_LOOP_THREAD();
  _pipeStream->listen(128, [this](fn::uv::Status const& status) { onConnection(status); })
      .throwOnError();
  _worker.connect();
}

void Dispatcher::onConnection(fn::uv::Status const& status) {
  status.throwOnError();
  auto stream = fn::uv::PipeStream::create(_loop);
  _pipeStream->accept(*stream).throwOnError();
  if (!stream->peerIsSameUser()) {
    logDispatcher.log(fn::logging::WRN, "Refusing a connection from user {}: not the hub's user",
                      stream->peerUserId().value_or(~0u));
    stream->close();
    return;
  }
  Connection connection(new WorkerConnection(*this, stream));
  connection->processId = stream->peerProcessId().value_or(-1);
  connection->connectedSince = std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count();
  WorkerConnection* raw = connection.get();
  stream->readStart([raw](char const* bytes, ssize_t count) {
    // A record may end the connection; the reader must outlive the whole chunk it is reading.
    Connection keep(raw);
    raw->reader.feed(bytes, count);
  });
  _connections.insert(connection);
}

void Dispatcher::onWorkerMessage(Connection const& connection, fn::Value record, size_t length) {
  ++connection->recordsIn;
  connection->bytesIn += length + 4;
  if (_monitor)
    _monitor->received(connection->info, record, length);
  int64_t messageType = 0;
  try {
    fn::Value const& typeValue = record.get(key::TYPE);
    messageType = typeValue.isInteger() ? typeValue.asInt() : 0;
    if (messageType == type::INVALID) {
      logDispatcher.log(fn::logging::WRN, "Received malformed message from worker {} ({}) ({})\n{}",
                        connection->info.displayName, connection->info.workerId,
                        connection->address(), translatePayload(record));
      return;
    }
    if (messageType == type::PONG) {
      logDispatcher.log(fn::logging::TRC, "Received PONG from worker {} (${}) ({})",
                        connection->info.displayName, connection->info.workerId,
                        connection->address());
      scheduleNextPing(connection);
      return;
    }
    if (logDispatcher.enabled(fn::logging::DBG)) {
      logDispatcher.log(fn::logging::DBG, "Receiving from worker {} ({}) ({}) {} bytes\n{}",
                        connection->info.displayName, connection->info.workerId,
                        connection->address(), length, translatePayload(record));
    }
    switch (messageType) {
      case type::HELLO:
        onHello(connection, record);
        break;
      case type::MESSAGE:
        onMessage(connection, std::move(record));
        break;
      case type::REFERENCE_RELEASE:
        onReferenceRelease(connection, record);
        break;
      default:
        break;
    }
  } catch (fn::Exception const& e) {
    // A record with missing or mistyped keys: the sender is at fault, not the hub. Drop the
    // record and keep serving everybody, the sender included.
    logDispatcher.log(fn::logging::WRN, "Dropping a bad record of type {} from worker {} ({}): {}",
                      messageType, connection->info.displayName, connection->info.workerId,
                      e.toString());
  }
}

void Dispatcher::onHello(Connection const& connection, fn::Value const& record) {
  fn::String displayName = record.at(key::DISPLAY_NAME).asString();
  fn::Value const& tagValue = record.get(key::TAG, fn::Value::NIL);
  fn::String tag = tagValue.isString() ? tagValue.asString() : fn::String();
  uint16_t id = nextWorkerId();
  logDispatcher.log(fn::logging::DBG, "Worker {} ({}) connected - assigning Id {}", displayName,
                    tag, id);
  connection->info = WorkerInfo{id, displayName, tag};
  if (_workers.size() <= id)
    _workers.resize(id + 1);
  _workers[id] = connection;
  _onWorkerConnected.emit(connection->info);
  send(connection, fn::Value::map({{key::TYPE, type::HELLO}, {key::WORKER_ID, id}}));
  scheduleNextPing(connection);
}

void Dispatcher::onMessage(Connection const& connection, fn::Value record) {
  uint16_t source = connection->info.workerId;
  record[key::SOURCE_WORKER_ID] = source;
  // Every key is read before anything is counted, so a record that fails here changes nothing.
  _objectIds.clear();
  fn::Value const& objects = record.get(key::OBJECTS);
  if (objects.isMap()) {
    for (auto const& [id, name] : objects.asMap())
      _objectIds.push_back(id.asUInt());
  }
  auto target = record.at(key::TARGET_WORKER_ID).to<uint16_t>();
  ObjectId objectId = target == NO_WORKER ? record.at(key::OBJECT_ID).to<ObjectId>() : 0;
  countInstanceUses(source, _objectIds);
  collectTargets(target, objectId);
  for (auto const& holder : _targets)
    forwardMessageToWorker(holder, record);
  _targets.clear();
  releaseUnheld(source, _objectIds);
}

void Dispatcher::forwardMessageToWorker(Connection const& target, fn::Value const& record) {
  for (ObjectId id : _objectIds)
    increaseUsageCount(id, target->info.workerId);
  send(target, record);
}

// The common MESSAGE, routed and accounted exactly as onMessage does, but forwarded as the
// bytes it came in with SOURCE_WORKER_ID spliced in. What RawMessage cannot vouch for, and
// everything while the debug line (which renders the decoded record) is on, is declined and
// takes the decoding path.
bool Dispatcher::forwardRawMessage(WorkerConnection& connection,
                                   uint8_t const* body,
                                   size_t length) {
  if (_monitor || logDispatcher.enabled(fn::logging::DBG) || !_rawMessage.scan(body, length))
    return false;
  ++connection.recordsIn;
  connection.bytesIn += length + 4;
  uint16_t source = connection.info.workerId;
  countInstanceUses(source, _rawMessage.objects());
  if (uint16_t target = _rawMessage.target(); target != NO_WORKER) {
    // The common case, one target: forwarded from its entry in the table, which nothing
    // forwarding does can remove.
    if (auto const* found = workerConnection(target))
      forwardRawMessageToWorker(*found, source);
  } else {
    collectTargets(target, _rawMessage.objectId().value_or(0));
    for (auto const& holder : _targets)
      forwardRawMessageToWorker(holder, source);
    _targets.clear();
  }
  releaseUnheld(source, _rawMessage.objects());
  return true;
}

void Dispatcher::forwardRawMessageToWorker(Connection const& target, uint16_t source) {
  for (ObjectId id : _rawMessage.objects())
    increaseUsageCount(id, target->info.workerId);
  if (target->ended || target->overflowed)
    return;
  target->stream->writeWith([&](fn::ByteArray& out) {
    size_t before = out.size();
    _rawMessage.appendFrame(out, source);
    target->bytesOut += out.size() - before;
  });
  ++target->recordsOut;
  checkQueue(target);
}

void Dispatcher::countInstanceUses(uint16_t source, std::vector<ObjectId> const& objects) {
  for (ObjectId id : objects) {
    if (ownerOf(id) == source)
      _usage.addInstanceUse(id);
  }
}

// Into _targets: the target worker if it is there, else every holder of the object, and for
// object 0 every worker but the hub's own. The holders are gathered before anything is
// forwarded, because forwarding counts uses in the same table, which may rehash.
void Dispatcher::collectTargets(uint16_t target, ObjectId objectId) {
  if (target != NO_WORKER) {
    if (auto const* found = workerConnection(target))
      _targets.push_back(*found);
    return;
  }
  if (objectId != REGISTRY_OBJECT_ID) {
    _holders.clear();
    _usage.holders(objectId, _holders);
    for (uint16_t workerId : _holders) {
      if (auto const* found = workerConnection(workerId))
        _targets.push_back(*found);
    }
    return;
  }
  // A connection that has not said HELLO has no id yet to release references under, so the
  // uses counted for it could never be given back.
  for (auto const& other : _connections) {
    if (other->info.workerId != 0 && other->info.workerId != NO_WORKER)
      _targets.push_back(other);
  }
}

// A message that reached nobody (its target is gone, or the sender sent its own object to
// itself) leaves no holder to release the sender's objects later: their uses go back now.
void Dispatcher::releaseUnheld(uint16_t source, std::vector<ObjectId> const& objects) {
  for (ObjectId id : objects) {
    if (ownerOf(id) == source && !_usage.hasHolders(id) && _usage.instanceUses(id) > 0)
      releaseInstance(id);
  }
}

void Dispatcher::increaseUsageCount(ObjectId objectId, uint16_t workerId) {
  if (ownerOf(objectId) == workerId)
    return;
  _usage.addHolderUse(objectId, workerId);
}

void Dispatcher::onReferenceRelease(Connection const& connection, fn::Value const& record) {
  auto objectId = record.at(key::OBJECT_ID).to<ObjectId>();
  if (!workerConnection(ownerOf(objectId)))
    return;
  auto usageCount = record.at(key::USAGE_COUNT).to<uint32_t>();
  uint16_t holder = connection->info.workerId;
  bool tooMany = false;
  UsageTable::Release result = _usage.releaseHolder(objectId, holder, usageCount, tooMany);
  if (result == UsageTable::Release::UnknownObject) {
    fn::debug::internal::assertionFailure(__FILE__, __func__, __LINE__,
                                          "ref != _referenceUsageCount.end()",
                                          fn::debug::internal::formatValues(objectId));
    return;
  }
  if (result == UsageTable::Release::UnknownHolder) {
    fn::debug::internal::assertionFailure(__FILE__, __func__, __LINE__,
                                          "count != ref->second.end()",
                                          fn::debug::internal::formatValues(objectId, holder));
    return;
  }
  if (tooMany) {
    fn::debug::internal::assertionFailure(
        __FILE__, __func__, __LINE__, "count->second >= usageCount",
        fn::debug::internal::formatValues(objectId, holder, usageCount));
  }
  if (result == UsageTable::Release::LastHolder)
    releaseInstance(objectId);
}

void Dispatcher::releaseInstance(ObjectId objectId) {
  uint32_t count = _usage.takeInstanceUses(objectId);
  if (count == 0) {
    fn::debug::internal::assertionFailure(__FILE__, __func__, __LINE__,
                                          "info != _instanceUsageCount.end()",
                                          fn::debug::internal::formatValues(objectId));
    return;
  }
  Connection const* owner = workerConnection(ownerOf(objectId));
  if (!owner)
    return;
  // A dying holder may release a million objects at once: no record value for each.
  Connection const& connection = *owner;
  if (connection->ended || connection->overflowed)
    return;
  connection->stream->writeWith([&](fn::ByteArray& out) {
    connection->bytesOut += MessageWriter::encodeInstanceRelease(out, objectId, count) + 4;
  });
  ++connection->recordsOut;
  checkQueue(connection);
}

void Dispatcher::onWorkerEOS(Connection const& connection) {
  if (connection->ended)
    return;
  connection->ended = true;
  connection->reader.stop();
  connection->stream->close();
  workerDied(connection);
}

void Dispatcher::workerDied(Connection const& connection) {
  uint16_t id = connection->info.workerId;
  connection->notRespondingTimer.invalidate();
  connection->nextPingTimer.invalidate();
  connection->overflowTimer.invalidate();
  if (id < _workers.size() && _workers[id] == connection) {
    _workers[id] = nullptr;
    while (!_workers.empty() && !_workers.back())
      _workers.pop_back();
    if (_workers.capacity() > 64 && _workers.size() * 4 < _workers.capacity())
      _workers.shrink_to_fit();
  }
  _connections.erase(connection);

  std::vector<ObjectId> released;
  _usage.forgetWorker(id, released);
  for (ObjectId objectId : released)
    releaseInstance(objectId);

  fn::Value dead = fn::Value::map({{key::TYPE, type::WORKER_DEAD}, {key::WORKER_ID, id}});
  for (auto const& other : _connections)
    send(other, dead);
  _onWorkerDisconnected.emit(connection->info);
}

void Dispatcher::scheduleNextPing(Connection const& connection) {
  connection->notRespondingTimer.invalidate();
  auto interval = fn::Duration::milliseconds(_timeout.totalMilliseconds() / 3);
  WorkerConnection* raw = connection.get();
  connection->nextPingTimer = _loop.schedule(interval, [this, raw] { sendPing(Connection(raw)); });
}

void Dispatcher::sendPing(Connection const& connection) {
  WorkerConnection* raw = connection.get();
  connection->notRespondingTimer =
      _loop.schedule(_timeout, [this, raw] { _onWorkerNotResponding.emit(Connection(raw)->info); });
  send(connection, fn::Value::map({{key::TYPE, type::PING}}));
}

void Dispatcher::send(Connection const& connection, fn::Value const& record) {
  if (connection->ended || connection->overflowed)
    return;
  connection->bytesOut += MessageWriter::write(*connection->stream, record) + 4;
  ++connection->recordsOut;
  checkQueue(connection);
}

// Run after every record written: the check itself is kept small enough to be inlined.
void Dispatcher::checkQueue(Connection const& connection) {
  if (connection->stream->pendingBytes() > _options.maxQueuedBytes && !connection->overflowed)
    endOverflowingConnection(connection);
}

void Dispatcher::endOverflowingConnection(Connection const& connection) {
  size_t queued = connection->stream->pendingBytes();
  connection->overflowed = true;
  logDispatcher.log(fn::logging::ERR,
                    "Worker {} ({}) is not reading: {} bytes queued for it, over the limit of {}; "
                    "ending its connection",
                    connection->info.displayName, connection->info.workerId, queued,
                    _options.maxQueuedBytes);
  WorkerConnection* raw = connection.get();
  connection->overflowTimer = _loop.schedule(fn::Duration(), [this, raw] {
    Connection self(raw);
    if (self->ended)
      return;
    // What is queued is given up, not written: that is the memory to win back.
    self->ended = true;
    self->reader.stop();
    self->stream->abort();
    workerDied(self);
  });
}

void Dispatcher::stop(fn::Duration const& timeout, std::move_only_function<void()> callback) {
  FN_ASSERT_LOOP_THREAD();
  fn::Value notice = fn::Value::map({{key::TYPE, type::ABOUT_TO_QUIT}});
  for (auto const& connection : _connections)
    send(connection, notice);
  _loop
      .schedule(timeout,
                [this, callback = std::move(callback)]() mutable {
                  _loop.stop();
                  if (callback)
                    callback();
                })
      .detach();
}

Dispatcher::Monitor::~Monitor() = default;

std::vector<Dispatcher::WorkerStatus> Dispatcher::workerStatuses() const {
  std::unordered_map<uint16_t, uint64_t> uses;
  _usage.usesByHolder(uses);
  std::vector<WorkerStatus> statuses;
  for (auto const& connection : _connections) {
    WorkerStatus& status = statuses.emplace_back();
    status.info = connection->info;
    status.processId = connection->processId;
    status.connectedSince = connection->connectedSince;
    status.recordsIn = connection->recordsIn;
    status.bytesIn = connection->bytesIn;
    status.recordsOut = connection->recordsOut;
    status.bytesOut = connection->bytesOut;
    status.bytesQueued = connection->stream->pendingBytes();
    if (auto found = uses.find(connection->info.workerId); found != uses.end())
      status.usesHeld = found->second;
  }
  std::sort(statuses.begin(), statuses.end(),
            [](auto const& a, auto const& b) { return a.info.workerId < b.info.workerId; });
  return statuses;
}

uint32_t Dispatcher::instanceUsageCount(ObjectId id) const {
  return _usage.instanceUses(id);
}

uint32_t Dispatcher::referenceUsageCount(ObjectId id, uint16_t workerId) const {
  return _usage.holderUses(id, workerId);
}

void Dispatcher::workerDidConnect(Worker& worker) {
  // The hub's own worker is worker 0 and this is its first object, so the registry gets the
  // id every worker already knows it by.
  _registry = fn::AutoPtr<RegistryImpl>(new RegistryImpl(worker));
  if (_registry->objectId() != REGISTRY_OBJECT_ID) {
    fn::debug::internal::assertionFailure(__FILE__, "workerDidConnect", __LINE__,
                                          "this->_registry->objectId() == REGISTRY_OBJECT_ID");
  }
  fn::AutoPtr<Registry> registry(dynamic_cast<Registry*>(_registry->localReference().get()));
  if (!registry)
    throw fn::NullPointerException("The registry's reference is not a Registry");
  _messageBus = fn::AutoPtr<MessageBusImpl>(new MessageBusImpl(worker));
  registry->registerObject(_messageBus);
  _inspectorRegistry = core::registerInspectorRegistry(worker);
  _hubMonitor = fn::AutoPtr<HubMonitorImpl>(new HubMonitorImpl(worker, *this));
  registry->registerObject(_hubMonitor);
  _inspectors = fn::AutoPtr<core::InspectorRegistry>(
      dynamic_cast<core::InspectorRegistry*>(_inspectorRegistry->localReference().get()));
  if (_inspectors)
    _inspectors->registerInspector("Hub", fn::AutoPtr<core::Inspector>(new HubInspector(*this)));
}

bool Dispatcher::wantsIdleTermination(Worker&) {
  return false;
}

bool Dispatcher::workerCanTerminate(Worker&) {
  return false;
}

void Dispatcher::workerRequestsTermination(Worker&) {}

void Dispatcher::aboutToQuit(Worker&) {}

}  // namespace ipc

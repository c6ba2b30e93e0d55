#include "core/ipc/worker.h"

#include "core/ipc/object.h"
#include "core/ipc/registry.h"
#include "foundation/assert.h"
#include "foundation/logging/category.h"
#include "foundation/uv/loop.h"

namespace ipc {
namespace {
fn::logging::Category logWorker("ipc.worker");
// {TYPE: PONG}, framed.
fn::ByteArray const PONG_FRAME{3, 0, 0, 0, 0x81, key::TYPE, type::PONG};
}  // namespace

Worker::Delegate::~Delegate() = default;

Worker::Worker(Delegate& delegate,
               fn::RunLoop& loop,
               fn::String const& pipePath,
               fn::String const& displayName,
               fn::String const& tag,
               bool idleTermination)
    : Worker(delegate, loop, pipePath, displayName, tag, idleTermination, Options()) {}

Worker::Worker(Delegate& delegate,
               fn::RunLoop& loop,
               fn::String const& pipePath,
               fn::String const& displayName,
               fn::String const& tag,
               bool idleTermination,
               Options options)
    : _delegate(delegate),
      _loop(loop),
      _pipePath(pipePath),
      _displayName(displayName),
      _tag(tag),
      _idleTermination(idleTermination),
      _options(options),
      _reader(options.maxFrameSize),
      _objects(*this) {
  registerObjectReferenceClass<Registry>();
  _reader.onFrame(
      [this](uint8_t const* body, size_t length) { return deliverRawMessage(body, length); });
  _reader.onMessage([this](fn::Value record, size_t) { handleRecord(record); });
  _reader.onEndOfStream([this] { connectionEnded(fn::uv::Status("end of stream", UV_EOF)); });
  _reader.onError([this](fn::uv::Status const& status) { connectionEnded(status); });
}

Worker::~Worker() {
  _terminationTimer.invalidate();
  _overflowTimer.invalidate();
  _objects.abandonAll();
  if (_stream)
    _stream->close();
}

void Worker::connect() {
  FN_ASSERT_LOOP_THREAD();
  _stream = fn::uv::PipeStream::create(_loop.uvLoop());
  _stream->connect(_pipePath, [this](fn::uv::Status const& status) { connected(status); });
}

void Worker::connected(fn::uv::Status const& status) {
  if (!status) {
    logWorker.log(fn::logging::ERR, "Worker {} could not connect to {}: {}", _displayName,
                  _pipePath, status);
    connectionEnded(status);
    status.throwOnError();
  }
  _stream->readStart([this](char const* bytes, ssize_t count) { _reader.feed(bytes, count); });
  write(fn::Value::map(
      {{key::TYPE, type::HELLO}, {key::DISPLAY_NAME, _displayName}, {key::TAG, _tag}}));
}

void Worker::connectionEnded(fn::uv::Status const& status) {
  if (_ended)
    return;
  _ended = true;
  _reader.stop();
  _terminationTimer.invalidate();
  _overflowTimer.invalidate();
  if (_stream)
    _stream->close();
  logWorker.log(fn::logging::INF, "Worker {} ({}) lost the hub: {}", _displayName, _workerId,
                status);
  _objects.allWorkersDied();
  _objects.dropRemoteUses();
  _onDisconnected.emit(status);
}

void Worker::stop() {
  FN_ASSERT_LOOP_THREAD();
  _terminationTimer.invalidate();
  _reader.stop();
  _ended = true;
  if (_stream)
    _stream->close();
}

void Worker::leave() {
  FN_ASSERT_LOOP_THREAD();
  _terminationTimer.invalidate();
  if (_stream && !_ended)
    _stream->shutdown();
}

ObjectId Worker::nextObjectId() {
  FN_ASSERT_LOOP_THREAD();
  if (_workerId == NO_WORKER) {
    fn::debug::internal::assertionFailure(
        __FILE__, "nextObjectId", __LINE__,
        "Worker must be connected before ObjectInstances can be created");
  }
  return (_objects.takeCounter() << 16) + _workerId;
}

void Worker::registerObjectInstance(ObjectInstance* instance) {
  FN_ASSERT_LOOP_THREAD();
  _objects.registerInstance(instance);
}

void Worker::unregisterObjectInstance(ObjectInstance* instance) {
  _objects.unregisterInstance(instance);
}

void Worker::registerObjectReference(ObjectReference* reference) {
  FN_ASSERT_LOOP_THREAD();
  _objects.registerReference(reference);
}

void Worker::unregisterObjectReference(ObjectReference* reference) {
  if (!reference) {
    fn::debug::internal::assertionFailure(__FILE__, "objectReferenceGone", __LINE__, "reference");
    return;
  }
  // A reference that is dying while a new message already brought its object again has lost
  // its table entry to the new reference, but its uses are its own: they go back all the same.
  _objects.unregisterReference(reference);
  if (!reference->local() && !reference->dead() && reference->usageCount() > 0 && !_ended) {
    write(fn::Value::map({{key::TYPE, type::REFERENCE_RELEASE},
                          {key::OBJECT_ID, reference->objectId()},
                          {key::USAGE_COUNT, reference->usageCount()}}));
  }
}

void Worker::sendMessageToDispatcher(fn::Value const& record) {
  FN_ASSERT_LOOP_THREAD();
  write(record);
}

void Worker::sendMessageToWorker(uint16_t target, ObjectId objectId, fn::Value const& payload) {
  sendMessageToWorker(target, objectId,
                      [&](fn::mpack::Encoder& out, fn::mpack::ValueSerializer& hook) {
                        out.value(payload, &hook);
                      });
}

void Worker::sendMessageToWorker(uint16_t target,
                                 ObjectId objectId,
                                 WorkerObjectManager::PayloadWriter write) {
  FN_ASSERT_LOOP_THREAD();
  // The payload is encoded once into a scratch buffer and the frame written straight into
  // the stream: the hot path builds no record value.
  fn::ByteArray& bytes = _payloadScratch;
  bytes.clear();
  fn::Value objects;  // a map once the payload holds an object
  _objects.encodePayload(write, bytes, objects);
  // The hub counts one use of each of our own objects per message that carries it; we hold
  // the instance once per counted use until the hub releases it.
  if (objects.isMap()) {
    for (auto const& [id, name] : objects.asMap()) {
      if (ownerOf(id.asUInt()) != _workerId)
        continue;
      if (auto instance = _objects.instance(id.asUInt()))
        instance->increateUsageCount();
    }
  }
  if (!_stream || _ended || _overflowed)
    return;
  _stream->writeWith([&](fn::ByteArray& out) {
    MessageWriter::encodeObjectMessage(out, objectId, target, bytes, objects);
  });
  checkQueue();
}

void Worker::write(fn::Value const& record) {
  if (!_stream || _ended || _overflowed)
    return;
  MessageWriter::write(*_stream, record);
  checkQueue();
}

// Run after every record written: the check itself is kept small enough to be inlined.
void Worker::checkQueue() {
  if (_stream->pendingBytes() > _options.maxQueuedBytes)
    leaveOverflowingHub();
}

void Worker::leaveOverflowingHub() {
  size_t queued = _stream->pendingBytes();
  _overflowed = true;
  logWorker.log(fn::logging::ERR,
                "Worker {} ({}) leaves the hub, which is not reading: {} bytes queued for it, "
                "over the limit of {}",
                _displayName, _workerId, queued, _options.maxQueuedBytes);
  // Ended from a task of its own: the write that overflowed may be deep inside an object's
  // call, which must not see every reference die under it.
  _overflowTimer = _loop.schedule(fn::Duration(), [this] {
    if (_stream)
      _stream->abort();
    connectionEnded(fn::uv::Status("write queue over the limit", UV_ENOBUFS));
  });
}

// Whatever a peer put in a record, only that record is lost: the reader's framing is untouched
// and the records after it are handled as usual.
void Worker::handleRecord(fn::Value const& record) {
  try {
    onMessage(record);
  } catch (...) {
    fn::Value const& source = record.get(key::SOURCE_WORKER_ID);
    reportBadRecord(source.isInteger() && source.asUInt() <= NO_WORKER
                        ? std::optional<uint16_t>(source.to<uint16_t>())
                        : std::nullopt);
  }
}

void Worker::reportBadRecord(std::optional<uint16_t> source) {
  std::string sender = source ? fmt::format("worker {}", *source) : std::string("the hub");
  logWorker.log(fn::logging::WRN, "Worker {} ({}) dropped a bad record from {}: {}", _displayName,
                _workerId, sender, fn::describeException(std::current_exception()));
}

// The common MESSAGE, read where it lies: its routing keys are taken from the frame and its
// payload decoded from there, without building the record or copying the payload. Whatever
// the reader cannot vouch for, and every record while somebody listens to onRecord(), takes
// the decoding path.
bool Worker::deliverRawMessage(uint8_t const* body, size_t length) {
  if (_onRecord.hasConnections() || !_rawMessage.scan(body, length) || !_rawMessage.objectId() ||
      !_rawMessage.payload())
    return false;
  FN_ASSERT_LOOP_THREAD();
  try {
    // Almost every message carries an empty map of objects: no need to decode that.
    fn::ByteView listed = _rawMessage.objectsBytes();
    fn::Value objects = listed.empty() || (listed.size() == 1 && listed[0] == 0x80)
                            ? fn::Value()
                            : fn::mpack::decode(listed.data(), listed.size());
    deliver(*_rawMessage.objectId(), _rawMessage.source().value_or(NO_WORKER),
            *_rawMessage.payload(), objects);
  } catch (...) {
    reportBadRecord(_rawMessage.source());
  }
  return true;
}

void Worker::onMessage(fn::Value const& record) {
  FN_ASSERT_LOOP_THREAD();
  if (_onRecord.hasConnections())
    _onRecord.emit(record);
  switch (record.at(key::TYPE).asInt()) {
    case type::HELLO:
      // The id is given once: another reply would renumber every object this worker made.
      if (_connected)
        throw fn::DataFormatException("A second HELLO reply");
      _workerId = record.at(key::WORKER_ID).to<uint16_t>();
      _connected = true;
      logWorker.log(fn::logging::DBG, "Worker {} connected with id {}", _displayName, _workerId);
      takeRegistry();
      _delegate.workerDidConnect(*this);
      // The hub's own worker creates the registry in workerDidConnect.
      if (!_registry)
        takeRegistry();
      // Connecting is not traffic: only delivered messages and releases start the idle
      // period, so a worker nobody ever used does not end on its own.
      break;
    case type::PING:
      // The answer is always the same three bytes: no record to build.
      if (_stream && !_ended && !_overflowed)
        _stream->write(PONG_FRAME);
      break;
    case type::MESSAGE:
      deliverObjectMessage(record);
      break;
    case type::INSTANCE_RELEASE: {
      auto id = record.at(key::OBJECT_ID).to<ObjectId>();
      auto count = record.at(key::USAGE_COUNT).to<int32_t>();
      fn::AutoPtr<ObjectInstance> instance = _objects.instance(id);
      if (!instance) {
        fn::debug::internal::assertionFailure(__FILE__, "onMessage", __LINE__, "instance");
        break;
      }
      // Each use is one retain of the instance: giving back more than were taken would free it
      // under its holders.
      if (count > instance->usageCount()) {
        throw fn::DataFormatException(fmt::format("A release of {} uses of object {}, which has {}",
                                                  count, id, instance->usageCount()));
      }
      for (int32_t i = 0; i < count; ++i)
        instance->decreaseUsageCount();
      instance.reset();
      scheduleTermination();
      break;
    }
    case type::WORKER_DEAD:
      _objects.workerDied(record.at(key::WORKER_ID).to<uint16_t>());
      break;
    case type::ABOUT_TO_QUIT:
      _delegate.aboutToQuit(*this);
      break;
    default:
      break;
  }
}

void Worker::deliverObjectMessage(fn::Value const& record) {
  auto id = record.at(key::OBJECT_ID).to<ObjectId>();
  auto source = record.get(key::SOURCE_WORKER_ID, NO_WORKER).to<uint16_t>();
  deliver(id, source, record.at(key::PAYLOAD).asByteArray(), record.get(key::OBJECTS));
}

// Payloads are decoded into a value kept from one delivery to the next, so that a map's
// entries need no allocation of their own each time. A delivery nested in another's handler
// (one that runs the loop) decodes into a value of its own.
void Worker::deliver(ObjectId id, uint16_t source, fn::ByteView bytes, fn::Value const& objects) {
  if (_payloadBusy) {
    fn::Value payload;
    deliverPayload(id, source, bytes, objects, payload);
    return;
  }
  _payloadBusy = true;
  try {
    deliverPayload(id, source, bytes, objects, _payload);
  } catch (...) {
    recyclePayload();
    throw;
  }
  recyclePayload();
}

// Emptied at once, not at the next delivery: the references a payload holds go when it was
// handled, as they would with a value of its own. A map grown unusually large is not kept.
void Worker::recyclePayload() {
  _payloadBusy = false;
  if (_payload.isMap() && _payload.asMap().capacity() <= 16)
    _payload.asMap().clear();
  else
    _payload = fn::Value();
}

void Worker::deliverPayload(ObjectId id,
                            uint16_t source,
                            fn::ByteView bytes,
                            fn::Value const& objects,
                            fn::Value& payload) {
  _objects.decodePayload(bytes, objects, payload);
  if (ownerOf(id) == _workerId) {
    fn::AutoPtr<ObjectInstance> instance = _objects.instance(id);
    if (!instance)
      return;
    instance->onMessage(source, payload);
  } else {
    fn::AutoPtr<ObjectReference> reference = _objects.reference(id);
    if (!reference)
      return;
    reference->takeMessage(std::move(payload));
  }
  scheduleTermination();
}

bool Worker::wantsTermination() {
  FN_ASSERT_LOOP_THREAD();
  return _connected && _idleTermination && _delegate.wantsIdleTermination(*this);
}

void Worker::takeRegistry() {
  if (ownerOf(REGISTRY_OBJECT_ID) != _workerId) {
    ObjectReferenceInitializer initializer{this, REGISTRY_OBJECT_ID, nullptr, fn::String()};
    _registry = fn::AutoPtr<Registry>(new Registry(initializer));
    return;
  }
  if (auto instance = _objects.instance(REGISTRY_OBJECT_ID))
    _registry = fn::AutoPtr<Registry>(dynamic_cast<Registry*>(instance->localReference().get()));
}

bool Worker::canTerminate() {
  FN_ASSERT_LOOP_THREAD();
  // The registry's own use of an instance does not keep a worker busy.
  auto registered = [this](ObjectId id) {
    return _registry && _registry->isInstanceRegistered(id);
  };
  return wantsTermination() && !_objects.busy(registered) && _delegate.workerCanTerminate(*this);
}

void Worker::scheduleTermination() {
  FN_ASSERT_LOOP_THREAD();
  if (_terminating || !wantsTermination()) {
    _terminationTimer.invalidate();
    return;
  }
  // Every delivery starts the idle period again. One timer serves them all: a timer per
  // message would cost more than the message itself.
  _activeAt = uv_now(_loop.uvLoop().raw());
  if (!_terminationTimer.valid())
    armTerminationTimer(_options.idleTimeout);
}

void Worker::armTerminationTimer(fn::Duration delay) {
  _terminationTimer = _loop.schedule(delay, [this] {
    // Woken before the whole period passed since the last delivery: wait for the rest.
    auto idle =
        fn::Duration::milliseconds(static_cast<int64_t>(uv_now(_loop.uvLoop().raw()) - _activeAt));
    if (idle < _options.idleTimeout) {
      armTerminationTimer(_options.idleTimeout - idle);
      return;
    }
    startTermination();
  });
}

void Worker::startTermination() {
  FN_ASSERT_LOOP_THREAD();
  if (!canTerminate()) {
    scheduleTermination();
    return;
  }
  _terminating = true;
  if (!_registry) {
    terminationHandshakeDone(false);
    return;
  }
  // Nobody may find our instances while we decide: a lookup answered with one of them now
  // would make us busy again, which the second test below sees.
  std::weak_ptr<Worker*> alive = _lifetime;
  _registry->setInstancesHidden(true).then(
      [this, alive] {
        if (!alive.expired())
          terminationHandshakeDone(true);
      },
      [this, alive](std::exception_ptr error) {
        if (alive.expired())
          return;
        logWorker.log(fn::logging::WRN, "Worker {} ({}) could not hide its instances: {}",
                      _displayName, _workerId, fn::describeException(error));
        _terminating = false;
        scheduleTermination();
      });
}

void Worker::terminationHandshakeDone(bool hidden) {
  if (!canTerminate()) {
    logWorker.log(fn::logging::DBG, "Worker {} ({}) is busy again and goes on", _displayName,
                  _workerId);
    _terminating = false;
    if (hidden && _registry)
      _registry->setInstancesHidden(false);
    scheduleTermination();
    return;
  }
  logWorker.log(fn::logging::INF, "Worker {} ({}) is idle and requests termination", _displayName,
                _workerId);
  _delegate.workerRequestsTermination(*this);
}

}  // namespace ipc

#pragma once

// ipc::Worker: one process's endpoint of the object framework.
//
// Owned by the code that embeds it (a module, or the hub's dispatcher) and bound to the loop
// thread it was created on. Every public method that acts checks that thread (the accessors do
// not), except the unregistering of instances and references, which their destructors call,
// also while a process tears down. It connects to the hub's
// pipe, says HELLO, learns its worker id, allocates object ids, keeps the objects it owns and
// the references it holds, answers pings and runs the idle-termination handshake with its
// delegate. Once connected it holds its reference to the registry (object 0); before it asks
// to terminate it hides its registry entries, and shows them again if it turns out busy. When
// the connection to the hub ends, onDisconnected() fires once and every
// remote reference becomes dead; a module process then quits, so no module outlives its hub.
// Destroying the worker closes the connection; objects must not outlive their worker.

#include <memory>

#include "core/export.h"
#include "core/ipc/message.h"
#include "core/ipc/message_helper.h"
#include "core/ipc/object.h"
#include "core/ipc/raw_message.h"
#include "core/ipc/worker_object_manager.h"
#include "foundation/duration.h"
#include "foundation/handle.h"
#include "foundation/run_loop.h"
#include "foundation/signal.h"
#include "foundation/uv/pipe_stream.h"

namespace ipc {

class Registry;

/// How long a module process may stay idle before it asks to terminate.
inline constexpr fn::Duration IDLE_TERMINATION_TIMEOUT = fn::Duration::seconds(600);

class CORE_EXPORT Worker {
public:
  class CORE_EXPORT Delegate {
  public:
    virtual void workerDidConnect(Worker& worker) = 0;
    virtual bool wantsIdleTermination(Worker& worker) = 0;
    virtual bool workerCanTerminate(Worker& worker) = 0;
    virtual void workerRequestsTermination(Worker& worker) = 0;
    virtual void aboutToQuit(Worker& worker) = 0;
    virtual ~Delegate();
  };

  /// The delegate of a worker that only uses the hub, such as a tool: it never asks to end on
  /// its own and lets the hub's notices pass, since losing the connection says it all.
  class ClientDelegate : public Delegate {
  public:
    void workerDidConnect(Worker&) override {}
    bool wantsIdleTermination(Worker&) override { return false; }
    bool workerCanTerminate(Worker&) override { return false; }
    void workerRequestsTermination(Worker&) override {}
    void aboutToQuit(Worker&) override {}
  };

  struct Options {
    fn::Duration idleTimeout = IDLE_TERMINATION_TIMEOUT;
    size_t maxFrameSize = DEFAULT_MAX_FRAME_SIZE;
    /// With more bytes than this queued for the hub, the hub has stopped reading: the worker
    /// leaves it rather than grow without bound.
    size_t maxQueuedBytes = DEFAULT_MAX_QUEUED_BYTES;
  };

  Worker(Delegate& delegate,
         fn::RunLoop& loop,
         fn::String const& pipePath,
         fn::String const& displayName,
         fn::String const& tag,
         bool idleTermination);
  Worker(Delegate& delegate,
         fn::RunLoop& loop,
         fn::String const& pipePath,
         fn::String const& displayName,
         fn::String const& tag,
         bool idleTermination,
         Options options);
  ~Worker();
  Worker(Worker const&) = delete;
  Worker& operator=(Worker const&) = delete;

  void connect();
  void stop();
  /// Leaves without cutting the hub off: writes nothing more after what is queued and lets the
  /// hub close the connection, reading whatever it still sends; onDisconnected() fires then.
  /// Closing at once instead may reset the connection under the hub's last writes.
  void leave();

  uint16_t workerId() const { return _workerId; }
  bool connected() const { return _connected; }
  fn::String const& displayName() const { return _displayName; }
  fn::String const& tag() const { return _tag; }
  fn::String const& pipePath() const { return _pipePath; }
  fn::RunLoop& loop() { return _loop; }
  WorkerObjectManager& objects() { return _objects; }
  /// The registry's reference (object 0); null until connected.
  fn::AutoPtr<Registry> const& registry() const { return _registry; }
  /// Expires when the worker is destroyed; objects whose destruction was posted check it
  /// before they unregister.
  std::weak_ptr<Worker*> lifetime() const { return _lifetime; }

  ObjectId nextObjectId();

  void registerObjectInstance(ObjectInstance* instance);
  void unregisterObjectInstance(ObjectInstance* instance);
  void registerObjectReference(ObjectReference* reference);
  void unregisterObjectReference(ObjectReference* reference);

  /// Makes `ReferenceClass` the class of references that arrive with its class name.
  template <typename ReferenceClass>
  void registerObjectReferenceClass();

  void sendMessageToDispatcher(fn::Value const& record);
  void sendMessageToWorker(uint16_t target, ObjectId objectId, fn::Value const& payload);
  /// The same with a payload written straight to the wire (no value built for it).
  void sendMessageToWorker(uint16_t target,
                           ObjectId objectId,
                           WorkerObjectManager::PayloadWriter write);

  void onMessage(fn::Value const& record);

  bool wantsTermination();
  bool canTerminate();
  void scheduleTermination();
  void startTermination();

  /// Fires once when the connection to the hub fails or ends.
  fn::Signal<fn::uv::Status const&>& onDisconnected() { return _onDisconnected; }
  /// Every record received, before it is handled; for tools and diagnostics.
  fn::Signal<fn::Value const&>& onRecord() { return _onRecord; }

private:
  void handleRecord(fn::Value const& record);
  void connected(fn::uv::Status const& status);
  void connectionEnded(fn::uv::Status const& status);
  void deliverObjectMessage(fn::Value const& record);
  bool deliverRawMessage(uint8_t const* body, size_t length);
  void deliver(ObjectId id, uint16_t source, fn::ByteView payload, fn::Value const& objects);
  void deliverPayload(ObjectId id,
                      uint16_t source,
                      fn::ByteView bytes,
                      fn::Value const& objects,
                      fn::Value& payload);
  void recyclePayload();
  void reportBadRecord(std::optional<uint16_t> source);
  void write(fn::Value const& record);
  void checkQueue();
  void leaveOverflowingHub();
  void takeRegistry();
  void terminationHandshakeDone(bool hidden);
  void armTerminationTimer(fn::Duration delay);

  fn::Handle _terminationTimer;
  fn::Handle _overflowTimer;
  bool _terminating = false;
  uint64_t _activeAt = 0;  // the loop's clock (ms) at the last delivery
  Delegate& _delegate;
  fn::RunLoop& _loop;
  fn::String _pipePath;
  fn::String _displayName;
  fn::String _tag;
  uint16_t _workerId = NO_WORKER;
  bool _idleTermination;
  bool _connected = false;
  bool _ended = false;
  bool _overflowed = false;
  Options _options;
  fn::AutoPtr<fn::uv::PipeStream> _stream;
  MessageReader _reader;
  RawMessage _rawMessage;
  // Where an outgoing payload is encoded before its frame is written.
  fn::ByteArray _payloadScratch;
  // Where an incoming payload is decoded, unless a delivery is already using it.
  fn::Value _payload;
  bool _payloadBusy = false;
  WorkerObjectManager _objects;
  // Released after _lifetime expired, so the reference (and the hub's registry it holds) is
  // freed at once instead of in a task the loop may never run.
  fn::AutoPtr<Registry> _registry;
  fn::Signal<fn::uv::Status const&> _onDisconnected;
  fn::Signal<fn::Value const&> _onRecord;
  std::shared_ptr<Worker*> _lifetime = std::make_shared<Worker*>(this);
};

template <typename ReferenceClass>
void Worker::registerObjectReferenceClass() {
  fn::AutoPtr<ReferenceClass> probe(new ReferenceClass(ObjectReference::_dummyInitializer));
  _objects.registerReferenceClass(probe->className(), [](ObjectReferenceInitializer& init) {
    return fn::AutoPtr<ObjectReference>(new ReferenceClass(init));
  });
}

}  // namespace ipc

#include "core/ipc/worker.h"

#include <csignal>

#include "core/ipc/message_helper.h"
#include "core/ipc/object.h"
#include "core/ipc/payload.h"
#include "foundation/mpack.h"
#include "hub_fixture.h"
#include "platform.h"

using namespace testing_support;
using ipc::NO_WORKER;
namespace key = ipc::key;
namespace type = ipc::type;

namespace {

// Keeps what it receives or, if it does not keep messages, a null in their place, so that the
// references in them die at once.
class Counter : public ipc::ObjectInstance {
public:
  explicit Counter(ipc::Worker& worker, bool keeps = true)
      : ipc::ObjectInstance(worker),
        _keeps(keeps) {}
  std::vector<std::pair<uint16_t, fn::Value>> received;

protected:
  void onMessage(uint16_t source, fn::Value const& message) override {
    received.emplace_back(source, _keeps ? message : fn::Value());
  }

private:
  bool _keeps;
};

// Handling its first message, asks for the next one and runs the loop until it came: the inner
// payload is kept first, then the outer one as it is after the inner delivery.
class Nesting : public ipc::ObjectInstance {
public:
  Nesting(ipc::Worker& worker, fn::uv::Loop& loop) : ipc::ObjectInstance(worker), _loop(loop) {}
  std::vector<fn::Value> received;
  std::function<void()> askForNext;

protected:
  void onMessage(uint16_t, fn::Value const& message) override {
    if (!_nested) {
      _nested = true;
      askForNext();
      runLoopUntil(_loop, [&] { return !received.empty(); });
    }
    received.push_back(message);
  }

private:
  fn::uv::Loop& _loop;
  bool _nested = false;
};

class Listener : public ipc::ObjectReference {
public:
  explicit Listener(ipc::ObjectReferenceInitializer& init) : ipc::ObjectReference(init) {}
  fn::String className() const override { return "Listener"; }
  int deaths = 0;

protected:
  void onObjectDead() override { ++deaths; }
};

// The MessagePack of {"thing": <object id>}, as another process writes it.
fn::ByteArray payloadWithObject(ipc::ObjectId id) {
  fn::ByteArray bytes{0x81, 0xa5, 't', 'h', 'i', 'n', 'g', 0xd7, 0x01};
  for (int i = 0; i < 8; ++i)
    bytes.push_back(static_cast<uint8_t>(id >> (8 * i)));
  return bytes;
}

// The frames of `records`, to be sent in one write.
fn::ByteArray frames(std::vector<fn::Value> const& records) {
  fn::ByteArray out;
  for (auto const& record : records)
    ipc::MessageWriter::encode(record, out);
  return out;
}

class WorkerTest : public HubTest {
protected:
  std::unique_ptr<ipc::Worker> makeWorker(ipc::Worker::Options options = {}, bool idle = false) {
    auto worker = std::make_unique<ipc::Worker>(delegate, loop, hub().pipePath(), "W", "w-tag",
                                                idle, options);
    worker->connect();
    EXPECT_TRUE(runLoopUntil(loop, [&] { return worker->connected(); }));
    return worker;
  }
  TestDelegate delegate;
};

}  // namespace

TEST_F(WorkerTest, InstanceLivesExactlyAsLongAsRemoteUsesAreCounted) {
  uint16_t p;
  auto peer = connect("P", p);
  auto worker = makeWorker();
  EXPECT_EQ(delegate.connects, 1);
  fn::AutoPtr<Counter> counter(new Counter(*worker));
  fn::WeakReference<Counter> weak(counter);

  // Sent three times to P: three uses counted by the hub and held by the worker.
  for (int i = 0; i < 3; ++i)
    worker->sendMessageToWorker(p, counter->objectId(), fn::Value::map({{"me", counter}}));
  EXPECT_EQ(peer->expectType(type::MESSAGE).at(key::OBJECTS),
            fn::Value::map({{counter->objectId(), "ipc::ObjectReference"}}));
  peer->expectType(type::MESSAGE);
  peer->expectType(type::MESSAGE);
  EXPECT_EQ(counter->usageCount(), 3);
  EXPECT_EQ(hub().referenceUsageCount(counter->objectId(), p), 3u);

  // The application lets go; the remote uses keep the instance.
  counter.reset();
  drainLoop(loop);
  ASSERT_FALSE(weak.expired());

  // P calls it: the message arrives with P's id as the source.
  peer->send(HubTest::message(weak.lock()->objectId(), worker->workerId(), fn::Value::map(),
                              fn::ByteArray{0xa2, 'h', 'i'}));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return weak.lock() && !weak.lock()->received.empty(); }));
  EXPECT_EQ(weak.lock()->received[0].first, p);
  EXPECT_EQ(weak.lock()->received[0].second, fn::Value("hi"));

  // One release of all three uses: a single INSTANCE_RELEASE drops three uses and three retains.
  peer->send(HubTest::release(weak.lock()->objectId(), 3));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return weak.expired(); }));
}

TEST_F(WorkerTest, AMessageDeliveredInsideAnothersHandlerLeavesItsPayloadAlone) {
  // libuv on Windows asks a pipe for more only after its read callback returned: a handler
  // that runs the loop receives nothing more from the hub there.
  SKIP_ON_WINDOWS("no delivery inside another's handler");
  uint16_t p;
  auto peer = connect("P", p);
  auto worker = makeWorker();
  fn::AutoPtr<Nesting> nesting(new Nesting(*worker, loop));
  auto numbered = [&](uint8_t n) {
    return HubTest::message(nesting->objectId(), worker->workerId(), fn::Value::map(),
                            fn::ByteArray{0x81, 0xa1, 'n', n});
  };
  nesting->askForNext = [&] { peer->send(numbered(2)); };
  peer->send(numbered(1));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return nesting->received.size() == 2; }));
  EXPECT_EQ(nesting->received[0], fn::Value::map({{"n", 2}}));
  EXPECT_EQ(nesting->received[1], fn::Value::map({{"n", 1}}));
}

TEST_F(WorkerTest, ReceivedReferencesAreCountedReleasedAndDieWithTheirOwner) {
  uint16_t p;
  auto peer = connect("P", p);
  auto worker = makeWorker();
  worker->registerObjectReferenceClass<Listener>();
  fn::AutoPtr<Counter> inbox(new Counter(*worker));
  ipc::ObjectId thing = HubTest::objectOf(p, 7), stray = HubTest::objectOf(p, 8);
  auto carrying = [&](Counter& to, ipc::ObjectId object, fn::String className) {
    return HubTest::message(to.objectId(), worker->workerId(),
                            fn::Value::map({{object, className}}), payloadWithObject(object));
  };

  // The object occurs in two messages: one reference, two uses. The class is known.
  peer->send(carrying(*inbox, thing, "Listener"));
  peer->send(carrying(*inbox, thing, "Listener"));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return inbox->received.size() == 2; }));
  auto* listener = inbox->received[0].second.at("thing").objectAs<Listener>();
  ASSERT_NE(listener, nullptr);
  EXPECT_EQ(listener, inbox->received[1].second.at("thing").objectAs<Listener>());
  EXPECT_EQ(listener->usageCount(), 2);

  // An unknown class still yields a reference, and says what is missing.
  LogCapture log;
  peer->send(carrying(*inbox, stray, "Mystery"));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return inbox->received.size() == 3; }));
  EXPECT_TRUE(
      log.contains("Couldn't create reference for class Mystery. Did you call "
                   "'registerObjectReferenceClass()'?"));
  EXPECT_EQ(inbox->received[2].second.at("thing").objectAs<ipc::ObjectReference>()->className(),
            "Mystery");

  // Dropping the last holder of the mystery reference hands its one use back.
  fn::AutoPtr<Listener> held(listener);
  int deadSignals = 0;
  auto onDead = held->objectDeadSignal().connect([&] { ++deadSignals; });
  inbox->received.clear();
  fn::Value released = peer->expectType(type::INSTANCE_RELEASE);
  EXPECT_EQ(released.at(key::OBJECT_ID), fn::Value(stray));
  EXPECT_EQ(released.at(key::USAGE_COUNT), fn::Value(1));

  // Received twice in one read by an instance that lets go of it at once, so the second
  // message finds the first reference dying: both uses still go back.
  fn::AutoPtr<Counter> forgetful(new Counter(*worker, false));
  ipc::ObjectId dropped = HubTest::objectOf(p, 9);
  auto twice = carrying(*forgetful, dropped, "ipc::ObjectReference");
  peer->sendRaw(frames({twice, twice}));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return forgetful->received.size() == 2; }));
  released = peer->expectType(type::INSTANCE_RELEASE);
  EXPECT_EQ(released.at(key::OBJECT_ID), fn::Value(dropped));
  EXPECT_EQ(released.at(key::USAGE_COUNT), fn::Value(2));
  EXPECT_EQ(hub().referenceUsageCount(dropped, worker->workerId()), 0u);

  // P dies: the reference becomes dead, its signal fires once, then onObjectDead.
  peer->process().kill(SIGKILL);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return held->dead(); }));
  EXPECT_EQ(deadSignals, 1);
  EXPECT_EQ(held->deaths, 1);
}

TEST_F(WorkerTest, IdleWorkerRequestsTerminationOnlyWhenNothingIsInUse) {
  uint16_t p;
  auto peer = connect("P", p);
  delegate.idleTermination = true;
  delegate.canTerminate = [] { return true; };
  auto worker =
      makeWorker(ipc::Worker::Options{.idleTimeout = fn::Duration::milliseconds(150)}, true);
  auto requested = [&](fn::Duration within) {
    return runLoopUntil(
        loop, [&] { return delegate.terminationRequests > 0; }, within);
  };
  // Connecting is not traffic: a worker that has never been used never ends on its own.
  EXPECT_FALSE(requested(fn::Duration::milliseconds(300)));
  fn::AutoPtr<Counter> counter(new Counter(*worker));
  worker->sendMessageToWorker(p, counter->objectId(), fn::Value::map({{"me", counter}}));
  peer->expectType(type::MESSAGE);
  // Busy while P holds the counter: the timer re-arms instead of asking.
  drainLoop(loop);
  worker->scheduleTermination();
  EXPECT_FALSE(requested(fn::Duration::milliseconds(300)));
  peer->send(HubTest::release(counter->objectId(), 1));
  // Each delivery starts the idle period again, for twice its length in all.
  for (int i = 0; i < 12; ++i) {
    peer->send(HubTest::message(counter->objectId(), worker->workerId()));
    EXPECT_FALSE(requested(fn::Duration::milliseconds(25))) << i;
  }
  ASSERT_TRUE(requested(fn::Duration::seconds(5)));
  EXPECT_EQ(delegate.terminationRequests, 1);
}

TEST_F(WorkerTest, ABadRecordCostsOnlyItselfInAModuleAndInTheHubsOwnWorker) {
  LogCapture log;
  uint16_t p;
  auto peer = connect("P", p);
  auto worker = makeWorker();
  fn::AutoPtr<Counter> counter(new Counter(*worker));
  ipc::ObjectId own = counter->objectId();
  uint16_t w = worker->workerId();
  ipc::ObjectId thing = HubTest::objectOf(p, 3);

  auto to = [&](fn::ByteArray payload, fn::Value objects = fn::Value::map()) {
    return HubTest::message(own, w, std::move(objects), std::move(payload));
  };
  fn::Value missingObject = to({0xc0}), mistypedObject = to({0xc0}), mistypedPayload = to({0xc0});
  missingObject.asMap().erase(fn::Value(key::OBJECT_ID));
  mistypedObject[key::OBJECT_ID] = "five";
  mistypedPayload[key::PAYLOAD] = "bytes";
  std::vector<fn::Value> bad = {
      to({0xc1}),                                                    // not MessagePack
      to({0x92, 0x01}),                                              // truncated
      to({0xd6, 0x01, 1, 2, 3, 4}, fn::Value::map({{thing, "X"}})),  // an object id of 4 bytes
      to({0xd4, 0x02, 0xc0}),                                        // not a fraction
      to({0xd5, 0x03, 0xa0, 0xa0}),                                  // not a typed byte array
      missingObject,
      mistypedObject,
      mistypedPayload,
      fn::Value::map({{key::TYPE, 99}}),  // a type nobody handles
  };
  // Each bad record, then a good one in the same write, then a good one in the next write.
  int expected = 0;
  for (size_t i = 0; i < bad.size(); ++i) {
    peer->sendRaw(frames({bad[i], to({0xa1, 'a'})}));
    peer->send(to({0xa1, 'b'}));
    expected += 2;
    ASSERT_TRUE(runLoopUntil(loop, [&] { return counter->received.size() == size_t(expected); }))
        << "after bad record " << i << ": " << ipc::translatePayload(bad[i]).toString();
  }
  EXPECT_TRUE(worker->connected());
  EXPECT_TRUE(log.contains(fmt::format("Worker W ({}) dropped a bad record from worker {}", w, p)));
  // The reference made for the listed object before its payload failed gave its use back.
  fn::Value released = peer->expectType(type::INSTANCE_RELEASE);
  EXPECT_EQ(released.at(key::OBJECT_ID), fn::Value(thing));

  // The same for the registry in the hub's own worker: the answer to the good call comes.
  auto call = [](fn::Value method, int id) {
    fn::ByteArray payload;
    fn::mpack::encode(fn::Value::map({{"TYPE", "CALL"},
                                      {"METHOD_NAME", std::move(method)},
                                      {"ARGUMENT", false},
                                      {"REQUEST_ID", id}}),
                      payload);
    return HubTest::message(ipc::REGISTRY_OBJECT_ID, 0, fn::Value::map(), payload);
  };
  for (size_t i = 0; i < bad.size(); ++i) {
    fn::Value toRegistry = bad[i];
    if (toRegistry.get(key::TARGET_WORKER_ID).isInteger())
      toRegistry[key::TARGET_WORKER_ID] = 0;
    if (toRegistry.get(key::OBJECT_ID).isInteger())
      toRegistry[key::OBJECT_ID] = ipc::REGISTRY_OBJECT_ID;
    int id = static_cast<int>(100 + i);
    peer->sendRaw(frames({toRegistry, call(42, 1), call("setInstancesHidden", id)}));
    fn::Value answer = peer->expect([](fn::Value const& r) { return isType(r, type::MESSAGE); });
    auto const& bytes = answer.at(key::PAYLOAD).asByteArray();
    EXPECT_EQ(fn::mpack::decode(bytes.data(), bytes.size()).get("REQUEST_ID"), fn::Value(id));
  }
  EXPECT_TRUE(log.contains(fmt::format("Ignoring a bad call from worker {}", p)));
}

TEST_F(WorkerTest, TheConnectionEndsOnceWhenTheWorkerLeavesFloodsTheHubOrLosesIt) {
  uint16_t p;
  auto peer = connect("P", p);
  LogCapture log;
  std::vector<std::pair<uint16_t, int>> ends;  // worker id, status
  std::vector<fn::Handle> watches;
  auto watched = [&](ipc::Worker::Options options = {}) {
    auto worker = makeWorker(options);
    watches.push_back(
        worker->onDisconnected().connect([&ends, id = worker->workerId()](fn::uv::Status const& s) {
          ends.emplace_back(id, s.code());
        }));
    return worker;
  };

  // The last message, queued just before leaving, still arrives; then the others hear of the
  // departure like of any other, and the leaver sees the hub close its side.
  auto leaver = watched();
  uint16_t l = leaver->workerId();
  leaver->sendMessageToWorker(p, (1u << 16) + l, fn::Value("bye"));
  leaver->leave();
  peer->expectType(type::MESSAGE);
  EXPECT_EQ(peer->expectType(type::WORKER_DEAD).get(key::WORKER_ID).asInt(), l);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return ends.size() == 1; }));
  EXPECT_FALSE(log.contains("Received read error"));

  // All written in one pass of the loop, in which the hub reads nothing: the kernel takes what
  // fits in the socket's buffer, and the rest queues up past the limit.
  auto flooder = watched(ipc::Worker::Options{.maxQueuedBytes = 64 * 1024});
  uint16_t f = flooder->workerId();
  for (int i = 0; i < 64; ++i)
    flooder->sendMessageToWorker(p, (1u << 16) + f, fn::Value(fn::ByteArray(16 * 1024, 'x')));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return ends.size() == 2; }));
  EXPECT_TRUE(log.contains(fmt::format("Worker W ({}) leaves the hub, which is not reading: ", f)));
  EXPECT_TRUE(log.contains("over the limit of 65536"));
  EXPECT_EQ(peer->expectType(type::WORKER_DEAD).at(key::WORKER_ID).asInt(), f);

  // A stopping hub is heard by the delegate, not as a lost connection; an instance that only
  // the hub's accounting kept alive is given up once the hub is gone for good.
  auto keeper = watched();
  uint16_t k = keeper->workerId();
  fn::AutoPtr<Counter> counter(new Counter(*keeper));
  fn::WeakReference<Counter> weak(counter);
  keeper->sendMessageToWorker(p, counter->objectId(), fn::Value::map({{"me", counter}}));
  peer->expectType(type::MESSAGE);
  counter.reset();
  bool stopped = false;
  hub().stop(fn::Duration::milliseconds(1), [&] { stopped = true; });
  ASSERT_TRUE(runLoopUntil(loop, [&] { return delegate.quits == 1 && stopped; }));
  EXPECT_EQ(ends.size(), 2u);
  startHub(fn::Duration::seconds(30));  // replaces (and so destroys) the first hub
  ASSERT_TRUE(runLoopUntil(loop, [&] { return ends.size() == 3 && weak.expired(); }));
  EXPECT_EQ(ends,
            (std::vector<std::pair<uint16_t, int>>{{l, UV_EOF}, {f, UV_ENOBUFS}, {k, UV_EOF}}));
}

TEST(ObjectLocal, DeliveriesArePostedAndConstructorMessagesWaitForReadiness) {
  fn::uv::Loop loop;
  TestDelegate delegate;
  // A worker that never connects still owns objects once it has an id; give it one through
  // the HELLO reply it would receive.
  ipc::Worker worker(delegate, loop, "/nonexistent", "L", "", false);
  std::vector<fn::String> failures;
  auto old =
      fn::debug::setAssertionHook([&](auto const& info) { failures.push_back(info.condition); });
  worker.nextObjectId();
  fn::debug::setAssertionHook(old);
  EXPECT_EQ(failures, std::vector<fn::String>{
                          "Worker must be connected before ObjectInstances can be created"});
  worker.onMessage(fn::Value::map({{key::TYPE, type::HELLO}, {key::WORKER_ID, 5}}));

  struct Eager : Counter {
    explicit Eager(ipc::Worker& w) : Counter(w) { sendMessage(5, fn::Value("from constructor")); }
  };
  fn::AutoPtr<Eager> eager(new Eager(worker));
  EXPECT_EQ(eager->objectId(), (1u << 16) + 5);  // the refused call used up counter 0
  auto reference = eager->localReference();
  EXPECT_TRUE(reference->local());

  // Nothing runs inside the senders' calls.
  reference->sendMessage(fn::Value::map({{"self", eager}}));
  EXPECT_TRUE(eager->received.empty());
  drainLoop(loop);
  ASSERT_EQ(eager->received.size(), 1u);
  EXPECT_EQ(eager->received[0].first, 5);
  // The instance inside the message arrived as its local reference.
  EXPECT_EQ(eager->received[0].second.at("self").objectAs<ipc::ObjectReference>(), reference.get());

  eager->received.clear();  // it held the reference, which holds the instance
  reference.reset();
  eager.reset();
  drainLoop(loop);
}

#include "core/ipc/worker.h"

#include <csignal>

#include "core/ipc/message_helper.h"
#include "core/ipc/object.h"
#include "core/ipc/payload.h"
#include "foundation/mpack.h"
#include "hub_fixture.h"

using namespace testing_support;
using ipc::NO_WORKER;
namespace key = ipc::key;
namespace type = ipc::type;

namespace {

class Counter : public ipc::ObjectInstance {
public:
  explicit Counter(ipc::Worker& worker) : ipc::ObjectInstance(worker) {}
  std::vector<std::pair<uint16_t, fn::Value>> received;

protected:
  void onMessage(uint16_t source, fn::Value const& message) override {
    received.emplace_back(source, message);
  }
};

// Counts what it receives and keeps nothing of it.
class Forgetful : public ipc::ObjectInstance {
public:
  explicit Forgetful(ipc::Worker& worker) : ipc::ObjectInstance(worker) {}
  int received = 0;

protected:
  void onMessage(uint16_t, fn::Value const&) override { ++received; }
};

class Listener : public ipc::ObjectReference {
public:
  explicit Listener(ipc::ObjectReferenceInitializer& init) : ipc::ObjectReference(init) {}
  fn::String className() const override { return "Listener"; }
  std::vector<fn::Value> received;
  int deaths = 0;

protected:
  void onMessage(fn::Value const& message) override { received.push_back(message); }
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
  // Object ids carry the owner in the low bits.
  EXPECT_EQ(worker->nextObjectId(), 2u);
  EXPECT_EQ(worker->nextObjectId(), (1u << 16) + 2);
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

TEST_F(WorkerTest, ReceivedReferencesAreCountedReleasedAndDieWithTheirOwner) {
  uint16_t p;
  auto peer = connect("P", p);
  auto worker = makeWorker();
  worker->registerObjectReferenceClass<Listener>();
  fn::AutoPtr<Counter> inbox(new Counter(*worker));
  ipc::ObjectId thing = HubTest::objectOf(p, 7);
  ipc::ObjectId stray = HubTest::objectOf(p, 8);

  // The object occurs in two messages: one reference, two uses. The class is known.
  auto objects = fn::Value::map({{thing, "Listener"}});
  peer->send(
      HubTest::message(inbox->objectId(), worker->workerId(), objects, payloadWithObject(thing)));
  peer->send(
      HubTest::message(inbox->objectId(), worker->workerId(), objects, payloadWithObject(thing)));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return inbox->received.size() == 2; }));
  auto* listener = inbox->received[0].second.at("thing").objectAs<Listener>();
  ASSERT_NE(listener, nullptr);
  EXPECT_EQ(listener, inbox->received[1].second.at("thing").objectAs<Listener>());
  EXPECT_EQ(listener->usageCount(), 2);

  // An unknown class still yields a reference, and says what is missing.
  LogCapture log;
  peer->send(HubTest::message(inbox->objectId(), worker->workerId(),
                              fn::Value::map({{stray, "Mystery"}}), payloadWithObject(stray)));
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
  auto idleTimeout = fn::Duration::milliseconds(150);
  auto worker = makeWorker(ipc::Worker::Options{.idleTimeout = idleTimeout}, true);
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

  fn::Value missingObject = HubTest::message(own, w);
  missingObject.asMap().erase(fn::Value(key::OBJECT_ID));
  fn::Value mistypedObject = HubTest::message(own, w);
  mistypedObject[key::OBJECT_ID] = "five";
  fn::Value mistypedPayload = HubTest::message(own, w);
  mistypedPayload[key::PAYLOAD] = "bytes";
  std::vector<fn::Value> bad = {
      HubTest::message(own, w, fn::Value::map(), fn::ByteArray{0xc1}),        // not MessagePack
      HubTest::message(own, w, fn::Value::map(), fn::ByteArray{0x92, 0x01}),  // truncated
      // An object id of 4 bytes, a fraction and a typed byte array that are not theirs.
      HubTest::message(own, w, fn::Value::map({{thing, "X"}}),
                       fn::ByteArray{0xd6, 0x01, 1, 2, 3, 4}),
      HubTest::message(own, w, fn::Value::map(), fn::ByteArray{0xd4, 0x02, 0xc0}),
      HubTest::message(own, w, fn::Value::map(), fn::ByteArray{0xd5, 0x03, 0xa0, 0xa0}),
      missingObject, mistypedObject, mistypedPayload,
      fn::Value::map({{key::TYPE, 99}}),  // a type nobody handles
  };
  // Each bad record, then a good one in the same write, then a good one in the next write.
  int expected = 0;
  for (size_t i = 0; i < bad.size(); ++i) {
    peer->sendRaw(
        frames({bad[i], HubTest::message(own, w, fn::Value::map(), fn::ByteArray{0xa1, 'a'})}));
    peer->send(HubTest::message(own, w, fn::Value::map(), fn::ByteArray{0xa1, 'b'}));
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

TEST_F(WorkerTest, UsesOfAReferenceReplacedBeforeItsDeletionRanAreAllGivenBack) {
  // P owns the thing; the worker receives it twice in one read and lets go of it at once
  // each time, so the second message finds the first reference dying.
  uint16_t p;
  auto peer = connect("P", p);
  auto worker = makeWorker();
  fn::AutoPtr<Forgetful> forgetful(new Forgetful(*worker));
  ipc::ObjectId thing = HubTest::objectOf(p, 9);
  auto objects = fn::Value::map({{thing, "ipc::ObjectReference"}});
  auto carrying = HubTest::message(forgetful->objectId(), worker->workerId(), objects,
                                   payloadWithObject(thing));
  peer->sendRaw(frames({carrying, carrying}));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return forgetful->received == 2; }));
  fn::Value released = peer->expectType(type::INSTANCE_RELEASE);
  EXPECT_EQ(released.at(key::OBJECT_ID), fn::Value(thing));
  EXPECT_EQ(released.at(key::USAGE_COUNT), fn::Value(2));
  EXPECT_EQ(hub().referenceUsageCount(thing, worker->workerId()), 0u);
}

TEST_F(WorkerTest, HubNoticesReachTheDelegateAndALostHubIsSignalled) {
  uint16_t p;
  auto peer = connect("P", p);
  auto worker = makeWorker();
  // An instance that only the hub's accounting keeps alive.
  fn::AutoPtr<Counter> counter(new Counter(*worker));
  fn::WeakReference<Counter> weak(counter);
  worker->sendMessageToWorker(p, counter->objectId(), fn::Value::map({{"me", counter}}));
  peer->expectType(type::MESSAGE);
  counter.reset();
  std::vector<int> codes;
  auto lost =
      worker->onDisconnected().connect([&](fn::uv::Status const& s) { codes.push_back(s.code()); });
  bool stopped = false;
  hub().stop(fn::Duration::milliseconds(1), [&] { stopped = true; });
  ASSERT_TRUE(runLoopUntil(loop, [&] { return delegate.quits == 1 && stopped; }));
  EXPECT_TRUE(codes.empty());

  // Then the hub goes away for good.
  startHub(fn::Duration::seconds(30));  // replaces (and so destroys) the first hub
  ASSERT_TRUE(runLoopUntil(loop, [&] { return codes.size() == 1; }));
  // Nobody will ever release the counted use now: the worker gave it up itself.
  ASSERT_TRUE(runLoopUntil(loop, [&] { return weak.expired(); }));
}

TEST_F(WorkerTest, ALeavingWorkerSendsWhatItQueuedAndLetsTheHubClose) {
  uint16_t p;
  auto peer = connect("P", p);
  auto worker = makeWorker();
  LogCapture log;
  bool lost = false;
  auto disconnected = worker->onDisconnected().connect([&](fn::uv::Status const& status) {
    lost = true;
    EXPECT_EQ(status.code(), UV_EOF);
  });
  // The last message, queued just before leaving, still arrives; then the others hear of the
  // departure like of any other, and the leaver sees the hub close its side.
  worker->sendMessageToWorker(p, (1u << 16) + worker->workerId(), fn::Value("bye"));
  worker->leave();
  peer->expectType(type::MESSAGE);
  EXPECT_EQ(peer->expectType(type::WORKER_DEAD).get(key::WORKER_ID).asInt(), worker->workerId());
  ASSERT_TRUE(runLoopUntil(loop, [&] { return lost; }));
  EXPECT_FALSE(log.contains("Received read error"));
}

TEST_F(WorkerTest, AWorkerPastItsQueueLimitToTheHubLeaves) {
  uint16_t p;
  auto peer = connect("P", p);
  auto worker = makeWorker(ipc::Worker::Options{.maxQueuedBytes = 64 * 1024});
  LogCapture log;
  std::vector<int> codes;
  auto lost = worker->onDisconnected().connect(
      [&](fn::uv::Status const& status) { codes.push_back(status.code()); });
  // All written in one pass of the loop, so nothing reaches the kernel before the limit.
  for (int i = 0; i < 8; ++i) {
    worker->sendMessageToWorker(p, (1u << 16) + worker->workerId(),
                                fn::Value(fn::ByteArray(16 * 1024, 'x')));
  }
  ASSERT_TRUE(runLoopUntil(loop, [&] { return !codes.empty(); }));
  EXPECT_EQ(codes, std::vector<int>{UV_ENOBUFS});
  EXPECT_TRUE(log.contains(
      fmt::format("Worker W ({}) leaves the hub, which is not reading: ", worker->workerId())));
  EXPECT_TRUE(log.contains("over the limit of 65536"));
  EXPECT_EQ(peer->expectType(type::WORKER_DEAD).at(key::WORKER_ID).asInt(), worker->workerId());
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

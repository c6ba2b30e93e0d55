#include "core/ipc/dispatcher.h"

#include <csignal>
#include <filesystem>
#include <set>

#include "foundation/environment.h"
#include "hub_fixture.h"
#include "platform.h"

using namespace testing_support;
using ipc::NO_WORKER;
namespace key = ipc::key;
namespace type = ipc::type;

namespace {

fn::ByteArray marker(char c) {
  return fn::ByteArray{0xa1, static_cast<uint8_t>(c)};  // MessagePack for a one-letter string
}

}  // namespace

TEST_F(HubTest, AssignsIdsInOrderAndRoutesToTargetsHoldersAndAllButTheHub) {
  LogCapture log;
  fn::logging::CategoryManager::instance().setThreshold("ipc.dispatcher", fn::logging::DBG);
  uint16_t a, b, c;
  auto peerA = connect("A", a);
  auto peerB = connect("B", b);
  auto peerC = connect("C", c);
  int hubOwnMessages = 0;
  auto tap = hub().worker().onRecord().connect([&](fn::Value const& r) {
    if (isType(r, type::MESSAGE))
      ++hubOwnMessages;
  });

  // Targeted: only the target gets it, stamped with the sender's id. C learns nothing, which
  // shows once C's own targeted barrier arrives first.
  peerA->send(message(objectOf(a, 0), b, fn::Value::map(), marker('t')));
  fn::Value got = peerB->expect(messageWith(marker('t')));
  fn::logging::CategoryManager::instance().setThreshold("ipc.dispatcher", fn::logging::INF);
  EXPECT_EQ(got.at(key::SOURCE_WORKER_ID).asInt(), a);
  EXPECT_EQ(got.at(key::OBJECT_ID).asUInt(), objectOf(a, 0));
  EXPECT_TRUE(log.contains("Worker A (tag-A) connected - assigning Id 1"));
  EXPECT_TRUE(log.contains("Worker B (tag-B) connected - assigning Id 2"));
  auto received = log.matching("Receiving from worker A (1) (");
  ASSERT_FALSE(received.empty());
  // The record follows on the next line, rendered for people.
  EXPECT_NE(received.back().text.find(" bytes\n{\"1-TYPE\": \"4-MESSAGE\", \"5-OBJECT_ID\": 1, "),
            fn::String::npos)
      << received.back().text;

  // To a worker that does not exist, or to every holder of an object nobody holds: dropped.
  peerA->send(message(objectOf(a, 0), 77, fn::Value::map(), marker('u')));
  peerA->send(message(objectOf(a, 5), NO_WORKER, fn::Value::map(), marker('n')));

  // A hands its object X to B; then a message for X's holders reaches B only.
  ipc::ObjectId x = objectOf(a, 1);
  peerA->send(message(x, b, fn::Value::map({{x, "Thing"}}), marker('x')));
  peerB->expect(messageWith(marker('x')));
  peerA->send(message(x, NO_WORKER, fn::Value::map(), marker('h')));
  peerB->expect(messageWith(marker('h')));

  // Object 0 with no target: every worker, the sender included, but not the hub's own, and
  // not a connection that has not said HELLO: it could never give back the uses it got.
  auto latecomer = Peer::start(loop, hub().pipePath());
  ASSERT_TRUE(runLoopUntil(loop, [&] { return hub().connectionCount() == 5; }));
  peerA->send(
      message(ipc::REGISTRY_OBJECT_ID, NO_WORKER, fn::Value::map({{x, "Thing"}}), marker('0')));
  for (auto* peer : {peerA.get(), peerB.get(), peerC.get()})
    EXPECT_EQ(peer->expect(messageWith(marker('0'))).at(key::SOURCE_WORKER_ID).asInt(), a);

  // Barrier: whatever A sent before reached C before this.
  peerA->send(message(objectOf(a, 0), c, fn::Value::map(), marker('z')));
  peerC->expect(messageWith(marker('z')));
  for (auto* peer : {peerB.get(), peerC.get()}) {
    for (auto const& r : peer->received())
      EXPECT_FALSE(isType(r, type::MESSAGE)) << r.toString();
  }
  EXPECT_EQ(hubOwnMessages, 0);
  uint16_t d = latecomer->hello("D");
  peerA->send(message(objectOf(a, 0), d, fn::Value::map(), marker('d')));
  fn::Value first = latecomer->expect([](fn::Value const& r) { return isType(r, type::MESSAGE); });
  EXPECT_EQ(first.get(key::PAYLOAD), fn::Value(marker('d')));
  EXPECT_EQ(hub().referenceUsageCount(x, d), 0u);
  EXPECT_EQ(hub().referenceUsageCount(x, NO_WORKER), 0u);
}

TEST_F(HubTest, CountsUsesWhateverTheSenderClaimsAndReleasesOnceOrWhenAHolderDies) {
  uint16_t a, b, c;
  auto peerA = connect("A", a);
  auto peerB = connect("B", b);
  auto peerC = connect("C", c);
  std::vector<uint16_t> gone;
  auto handle = hub().onWorkerDisconnected().connect(
      [&](auto const& info) { gone.push_back(info.workerId); });
  ipc::ObjectId x = objectOf(a, 1), other = objectOf(a, 2), theirs = objectOf(c, 1);
  ipc::ObjectId y = objectOf(b, 1);  // B's, to be held by C
  auto objects = fn::Value::map({{x, "Thing"}, {other, "Thing"}, {theirs, "Other"}});

  // Claiming to come from B does not make it so.
  fn::Value forged = message(x, b, objects, marker('f'));
  forged[key::SOURCE_WORKER_ID] = b;
  peerA->send(forged);
  fn::Value got = peerB->expect(messageWith(marker('f')));
  EXPECT_EQ(got.at(key::SOURCE_WORKER_ID).asInt(), a);
  EXPECT_EQ(got.at(key::OBJECTS), objects);

  // The same record with its keys in another order and the type in a longer form.
  fn::ByteArray body = {0x86, 0x09, 0x83};
  for (ipc::ObjectId id : {theirs, other, x}) {
    fn::mpack::encode(fn::Value(id), body);
    fn::mpack::encode(fn::Value(id == theirs ? "Other" : "Thing"), body);
  }
  for (int k : {key::TARGET_WORKER_ID, int(b), key::SOURCE_WORKER_ID, 77, key::OBJECT_ID})
    fn::mpack::encode(fn::Value(k), body);
  fn::mpack::encode(fn::Value(x), body);
  fn::ByteArray tail = {key::PAYLOAD, 0xc4, 0x02, 0xa1, 'g', key::TYPE, 0xcc, type::MESSAGE};
  body.insert(body.end(), tail.begin(), tail.end());
  fn::ByteArray frame = {static_cast<uint8_t>(body.size()), 0, 0, 0};
  frame.insert(frame.end(), body.begin(), body.end());
  peerA->sendRaw(frame);
  fn::Value reordered = peerB->expect(messageWith(marker('g')));
  reordered[key::PAYLOAD] = fn::ByteArray(marker('f'));
  EXPECT_EQ(reordered, got);

  // Both counted the uses that travelled: A's instances once per message, B's references
  // to every object. B passes X and its own Y on to C: C holds them, X's count stays.
  peerA->send(message(x, c, fn::Value::map({{x, "Thing"}}), marker('3')));
  peerC->expect(messageWith(marker('3')));
  peerB->send(message(objectOf(b, 0), c, fn::Value::map({{x, "Thing"}, {y, "B"}}), marker('4')));
  peerC->expect(messageWith(marker('4')));
  EXPECT_EQ(hub().instanceUsageCount(x), 3u);
  EXPECT_EQ(hub().instanceUsageCount(other), 2u);
  EXPECT_EQ(hub().instanceUsageCount(theirs), 0u);
  for (ipc::ObjectId id : {x, other, theirs})
    EXPECT_EQ(hub().referenceUsageCount(id, b), 2u);
  EXPECT_EQ(hub().referenceUsageCount(x, c), 2u);

  peerB->send(release(x, 2));
  peerC->send(release(x, 1));
  // A barrier through A's connection: no release may have reached A before it.
  peerC->send(message(objectOf(c, 0), a, fn::Value::map(), marker('b')));
  peerA->expect(messageWith(marker('b')));
  for (auto const& r : peerA->received())
    EXPECT_FALSE(isType(r, type::INSTANCE_RELEASE));
  peerC->send(release(x, 1));
  fn::Value released = peerA->expectType(type::INSTANCE_RELEASE);
  EXPECT_EQ(released.at(key::OBJECT_ID).asUInt(), x);
  EXPECT_EQ(released.at(key::USAGE_COUNT).asInt(), 3);
  EXPECT_EQ(hub().instanceUsageCount(x), 0u);

  // Used again after the release: the count starts afresh.
  peerA->send(message(x, c, fn::Value::map({{x, "Thing"}}), marker('5')));
  peerC->expect(messageWith(marker('5')));
  peerC->send(release(x, 1));
  EXPECT_EQ(peerA->expectType(type::INSTANCE_RELEASE).at(key::USAGE_COUNT).asInt(), 1);
  // A message that reaches only the object's owner, or nobody, leaves no holder to release the
  // object later: the use goes back at once, whether the record is forwarded as it came or
  // decoded.
  peerA->send(message(x, a, fn::Value::map({{x, "Thing"}}), marker('o')));
  peerA->expect(messageWith(marker('o')));
  fn::Value decoded = message(x, 999, fn::Value::map({{x, "Thing"}}), marker('6'));
  peerA->send(decoded);
  decoded[fn::Value("extra")] = 1;  // a key the raw path does not vouch for
  peerA->send(decoded);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(peerA->expectType(type::INSTANCE_RELEASE).at(key::USAGE_COUNT).asInt(), 1) << i;
  EXPECT_EQ(hub().referenceUsageCount(x, a), 0u);

  // B is killed: first the release of its two uses of A's other object, as if B had
  // released them itself, then the notice to everybody.
  peerB->process().kill(SIGKILL);
  released = peerA->expectType(type::INSTANCE_RELEASE);
  EXPECT_EQ(released.get(key::OBJECT_ID), fn::Value(other));
  EXPECT_EQ(released.get(key::USAGE_COUNT), fn::Value(2));
  EXPECT_EQ(peerA->expectType(type::WORKER_DEAD).get(key::WORKER_ID), fn::Value(b));
  EXPECT_EQ(peerC->expectType(type::WORKER_DEAD).at(key::WORKER_ID).asInt(), b);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return gone == std::vector<uint16_t>{b}; }));

  // The dead worker's objects are forgotten: releasing one is ignored, and nothing is owed.
  EXPECT_EQ(hub().referenceUsageCount(y, c), 0u);
  LogCapture log;
  peerC->send(release(y, 1));
  peerC->send(message(objectOf(c, 0), a, fn::Value::map(), marker('b')));
  peerA->expect(messageWith(marker('b')));
  EXPECT_FALSE(log.contains("Assertion failed"));
}

TEST_F(HubTest, StoppedWorkerIsReportedNotRespondingButKeptConnected) {
  // T = 1 s gives a ping every 333 ms: the first one never comes sooner.
  startHub(fn::Duration::seconds(1));
  std::set<uint16_t> silent;
  auto handle = hub().onWorkerNotResponding().connect(
      [&](auto const& info) { silent.insert(info.workerId); });
  auto before = std::chrono::steady_clock::now();
  uint16_t s, a;
  auto silentPeer = connect("S", s, PeerOptions{.answerPings = false});
  silentPeer->expectType(type::PING);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(333));

  // A peer that does not answer, and a process that is stopped.
  auto peer = connect("A", a);
  ASSERT_TRUE(testing_support::suspendProcess(peer->process().pid(), true));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return silent.size() == 2; }));
  EXPECT_EQ(silent, (std::set<uint16_t>{s, a}));
  EXPECT_EQ(hub().connectionCount(), 3u);  // the hub's own worker, S and A

  // Woken up, it answers the outstanding ping and is pinged again.
  ASSERT_TRUE(testing_support::suspendProcess(peer->process().pid(), false));
  LogCapture log;
  fn::logging::CategoryManager::instance().setThreshold("ipc.dispatcher", fn::logging::TRC);
  ASSERT_TRUE(runLoopUntil(
      loop, [&] { return log.contains(fmt::format("Received PONG from worker A (${})", a)); }));
  fn::logging::CategoryManager::instance().setThreshold("ipc.dispatcher", fn::logging::INF);
}

TEST_F(HubTest, BadInputOrAStalledReaderEndsAtMostThatConnection) {
  startHub(fn::Duration::seconds(30),
           ipc::Dispatcher::Options{.maxFrameSize = 128 * 1024, .maxQueuedBytes = 256 * 1024});
  LogCapture log;
  uint16_t a, b;
  auto healthy = connect("Healthy", a);
  auto other = connect("Other", b);

  // A record without a type: logged and dropped, the connection stays.
  uint16_t bad;
  auto peer = connect("Bad", bad);
  peer->send(fn::Value::map({{key::OBJECT_ID, 5}}));
  // A HELLO without its display name: dropped with a log line, the connection stays.
  peer->send(fn::Value::map({{key::TYPE, type::HELLO}}));
  // A MESSAGE whose target is not a 16-bit worker id.
  fn::Value outOfRange = message(objectOf(bad, 0), 0);
  outOfRange[key::TARGET_WORKER_ID] = 1 << 20;
  peer->send(outOfRange);
  peer->send(message(objectOf(bad, 0), a, fn::Value::map(), marker('s')));
  healthy->expect(messageWith(marker('s')));
  EXPECT_TRUE(log.contains(fmt::format("Received malformed message from worker Bad ({}) (", bad)));
  EXPECT_TRUE(log.contains("Dropping a bad record of type 1 from worker Bad"));
  EXPECT_TRUE(log.contains("Dropping a bad record of type 4 from worker Bad"));

  // Bytes that are not MessagePack: the connection ends, the others are told.
  auto garbage = connect("Garbage", bad);
  // More bytes follow in the same chunk: the reader must stop without touching what the
  // ended connection freed.
  garbage->sendRaw(fn::ByteArray{3, 0, 0, 0, 0xc1, 0xc1, 0xc1, 1, 0, 0, 0, 0xc0});
  EXPECT_EQ(healthy->expectType(type::WORKER_DEAD).at(key::WORKER_ID).asInt(), bad);
  EXPECT_EQ(garbage->process().waitForExit(), 0);
  EXPECT_TRUE(log.contains("Received read error MessageHelper failed to decode a frame"));

  // A frame over the limit: the connection ends before anything is allocated for it.
  auto huge = connect("Huge", bad);
  huge->sendRaw(fn::ByteArray{0xff, 0xff, 0xff, 0x7f});
  EXPECT_EQ(healthy->expectType(type::WORKER_DEAD).at(key::WORKER_ID).asInt(), bad);
  EXPECT_TRUE(log.contains("over the limit of 131072"));

  // Half a frame, then silence: the hub goes on serving everybody else.
  auto stuck = connect("Stuck", bad);
  stuck->sendRaw(fn::ByteArray{20, 0, 0, 0, 0x85, 0x01});
  healthy->send(message(objectOf(a, 0), b, fn::Value::map(), marker('k')));
  other->expect(messageWith(marker('k')));
  uint16_t late;
  auto newcomer = connect("Late", late);
  EXPECT_NE(late, NO_WORKER);

  // A worker that stops reading is cut off once past the queue limit (the socket's buffers
  // take a few hundred KiB first), and the uses it held of another's object go back.
  uint16_t z;
  auto sleeper = connect("Sleeper", z);
  ipc::ObjectId x = objectOf(a, 1);
  healthy->send(message(x, z, fn::Value::map({{x, "Thing"}}), marker('x')));
  sleeper->expect(messageWith(marker('x')));
  ASSERT_TRUE(testing_support::suspendProcess(sleeper->process().pid(), true));
  fn::ByteArray big(64 * 1024, 'x');
  for (int i = 0; i < 48; ++i)
    healthy->send(message(objectOf(a, 0), z, fn::Value::map(), big));
  EXPECT_EQ(healthy->expectType(type::INSTANCE_RELEASE).at(key::OBJECT_ID).asUInt(), x);
  EXPECT_EQ(healthy->expectType(type::WORKER_DEAD).at(key::WORKER_ID).asInt(), z);
  auto lines = log.matching(fmt::format("Worker Sleeper ({}) is not reading: ", z));
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].text.find(" bytes queued for it, over the limit of 262144; ending its "
                               "connection"),
            fn::String::npos)
      << lines[0].text;
  EXPECT_EQ(hub().connectionCount(), 6u);  // the hub's own, Healthy, Other, Bad, Stuck, Late
  ASSERT_TRUE(testing_support::suspendProcess(sleeper->process().pid(), false));
}

TEST_F(HubTest, RefusesAPeerOfAnotherUser) {
  if (!testing_support::isRoot())
    GTEST_SKIP() << "needs root (on POSIX) to run a peer as another user";
  // A runtime directory of this test's own: other tests must not see it opened up below.
  fn::String base = testing_support::makeTemporaryDirectory("lumaren-refuse");
  namespace fs = std::filesystem;
  fs::permissions(std::string(base), fs::perms::owner_all | fs::perms::group_read |
                                         fs::perms::group_exec | fs::perms::others_read |
                                         fs::perms::others_exec);
  fn::String previous = fn::Environment::get("XDG_RUNTIME_DIR");
  fn::Environment::set("XDG_RUNTIME_DIR", base);
  startHub(fn::Duration::seconds(30));
  fn::Environment::set("XDG_RUNTIME_DIR", previous);
  LogCapture log;
  // The private directory alone keeps other users out...
  auto outsider = Peer::start(loop, hub().pipePath(), PeerOptions{.asNobody = true});
  EXPECT_EQ(outsider->process().waitForExit(), 3);  // could not connect

  // ...and with the directory opened up, the hub itself refuses the peer.
  fn::String directory = hub().pipePath().substr(0, hub().pipePath().rfind('/'));
  fs::permissions(std::string(directory), fs::perms::all);
  fs::permissions(std::string(hub().pipePath()), fs::perms::all);
  auto intruder = Peer::start(loop, hub().pipePath(), PeerOptions{.asNobody = true});
  intruder->send(fn::Value::map({{key::TYPE, type::HELLO}, {key::DISPLAY_NAME, "intruder"}}));
  EXPECT_EQ(intruder->process().waitForExit(), 0);  // the hub closed the connection
  for (auto const& r : intruder->received())
    EXPECT_FALSE(isType(r, type::HELLO));
  EXPECT_TRUE(log.contains("Refusing a connection from user"));
  std::filesystem::remove_all(std::string(base));
}

// An independent client in another language, written against the wire format alone, is
// greeted, pinged, routed and accounted exactly like our own workers.

#include "child_process.h"
#include "core/ipc/payload.h"
#include "foundation/file.h"
#include "hub_fixture.h"
#include "platform.h"

using namespace testing_support;
namespace key = ipc::key;
namespace type = ipc::type;

TEST_F(HubTest, IndependentPythonClientIsRoutedAndAccounted) {
  SKIP_ON_WINDOWS("the independent client is Python, which Wine does not run");
  if (!fn::File("/usr/bin/python3").exists())
    GTEST_SKIP() << "no /usr/bin/python3";
  startHub(fn::Duration::milliseconds(300));  // pings every 100 ms
  bool pythonConnected = false;
  auto connected = hub().onWorkerConnected().connect(
      [&](auto const& info) { pythonConnected = pythonConnected || info.displayName == "python"; });
  auto python = ChildProcess::start(
      loop, {.file = "/usr/bin/python3", .arguments = {WIRE_CLIENT_SCRIPT, hub().pipePath()}});
  ASSERT_TRUE(runLoopUntil(loop, [&] { return pythonConnected; }));

  uint16_t me;
  auto peer = connect("cpp", me);
  // Announce ourselves to every worker through object 0; the Python client answers with a
  // MESSAGE to us that carries one of its objects and what it heard from whom.
  peer->send(message(ipc::REGISTRY_OBJECT_ID, ipc::NO_WORKER, fn::Value::map(),
                     fn::ByteArray{0xa5, 'h', 'e', 'l', 'l', 'o'}));
  fn::Value got = peer->expect([](fn::Value const& r) {
    return isType(r, type::MESSAGE) && r.get(key::OBJECT_ID) != fn::Value(0);
  });
  ipc::ObjectId thing = (1u << 16) + 1;
  EXPECT_EQ(got.get(key::OBJECTS), fn::Value::map({{thing, "PyThing"}}));
  EXPECT_EQ(hub().referenceUsageCount(thing, me), 1u);
  fn::Value said = ipc::translatePayload(got).get("8-PAYLOAD");
  EXPECT_EQ(said.get("heard"), fn::Value("hello"));
  EXPECT_EQ(said.get("from"), fn::Value(me));
  EXPECT_EQ(said.get("thing").toString(), fmt::format("Object {} (from worker 1)", thing));

  // It exits with 0 once it has been pinged and its object released with its one use.
  peer->send(release(thing, 1));
  EXPECT_EQ(python->waitForExit(), 0);
  peer->expectType(type::WORKER_DEAD);
}

#include "core/ipc/callable_object.h"

#include <algorithm>
#include <csignal>
#include <map>

#include "core/fraction.h"
#include "core/ipc/payload.h"
#include "core/ipc/worker.h"
#include "core/typed_byte_array.h"
#include "module_fixture.h"

using namespace testing_support;
using CallContext = ipc::CallableObjectInstance::CallContext;
using Event = std::pair<fn::String, fn::Value>;

namespace {

// A callable object in the test's own process.
class Thing : public ipc::CallableObjectInstance {
public:
  using ipc::CallableObjectInstance::CallableObjectInstance;
  std::vector<CallContext> calls;
  std::vector<CallContext> cancellations;

protected:
  void onMethodCall(CallContext const& context,
                    fn::String const& method,
                    fn::Value const& argument) override {
    calls.push_back(context);
    if (method == "ping")
      sendResult(context, fn::Value(fmt::format("pong {}", argument)));
  }
  void onMethodCallCancelled(CallContext const& context) override {
    cancellations.push_back(context);
  }
};

// Module processes whose services the test's worker finds through the registry.
class CallableTest : public ModuleTest {
protected:
  void SetUp() override {
    ModuleTest::SetUp();
    worker->registerObjectReferenceClass<ipc::CallableObjectReference>();
  }

  void TearDown() override {
    // The modules go first: every call still open ends with their death, and every use
    // they held of this process's objects is handed back, so nothing is left behind.
    killModules();
    EXPECT_TRUE(runLoopUntil(loop, [&] {
      for (auto& service : services) {
        if (!service->dead())
          return false;
      }
      return worker->objects().instanceCount() == 0;
    }));
    services.clear();
    ModuleTest::TearDown();
  }

  /// The service of a new module `name`: registered last, it is the one a lookup finds.
  ServiceReference& startModule(fn::String const& name) {
    ModuleTest::startModule(name, {"register=0"});
    awaitEntries(modules.size());
    services.push_back(lookup());
    return *services.back();
  }

  /// Runs the loop until `service` heard the event `name`; returns its argument.
  fn::Value awaitEvent(ServiceReference& service, fn::String const& name) {
    auto first = [&] { return std::ranges::find(service.events, name, &Event::first); };
    EXPECT_TRUE(runLoopUntil(loop, [&] { return first() != service.events.end(); }))
        << "no event " << name;
    return first() != service.events.end() ? first()->second : fn::Value();
  }

  std::vector<fn::AutoPtr<ServiceReference>> services;
};

}  // namespace

TEST_F(CallableTest, CallsAreAnsweredWithValuesIntactAndEventsReachCallerOrEveryHolder) {
  ServiceReference& a = startModule("A");
  ServiceReference& b = startModule("B");

  fn::Value argument = fn::Value::map(
      {{"list", fn::Value::array({1, -2, 3.5, fn::Value()})},
       {"fraction", fn::Value::box(core::Fraction(16, 9))},
       {"typed", fn::Value::box(core::TypedByteArray(fn::ByteArray{1, 2, 3}, "image/png"))}});
  // Boxed values compare by identity; their text forms and types must match.
  fn::Value echoed = call(a, "echo", argument);
  EXPECT_EQ(echoed.toString(), argument.toString());
  EXPECT_TRUE(echoed.at("fraction").boxed<core::Fraction>());
  EXPECT_TRUE(echoed.at("typed").boxed<core::TypedByteArray>());
  // The module saw real value types, not opaque bytes.
  EXPECT_EQ(call(a, "describe", argument),
            fn::Value::map({{"fraction", "16/9"}, {"mimeType", "image/png"}, {"byteCount", 3}}));

  // B holds A's service too and relays what it hears as "heard" events of its own. Only the
  // caller gets the direct event, and before the broadcast.
  EXPECT_EQ(call(b, "keep", fn::Value(fn::AutoPtr<ServiceReference>(&a))), fn::Value(1));
  EXPECT_EQ(call(a, "emit", "now"), fn::Value(true));
  EXPECT_EQ(awaitEvent(b, "heard"), fn::Value("news"));
  awaitEvent(a, "news");
  EXPECT_EQ(a.events, (decltype(a.events){{"direct", "now"}, {"news", "now"}}));
  EXPECT_EQ(b.events.size(), 1u);

  // An unknown method is never answered; later calls are, and the open one can be cancelled.
  fn::Promise<fn::Value> unanswered = a.callMethod("noSuchMethod", {});
  EXPECT_EQ(call(a, "echo", 5), fn::Value(5));
  EXPECT_TRUE(unanswered.isPending());
  unanswered.cancel();

  // The diagnostic rendering of a record decodes the value types too, resolving nothing.
  fn::ByteArray bytes;
  fn::Value objects = fn::Value::map();
  worker->objects().encodePayload(argument, bytes, objects);
  fn::Value rendered = ipc::translatePayload(
      fn::Value::map({{ipc::key::TYPE, ipc::type::MESSAGE}, {ipc::key::PAYLOAD, bytes}}));
  EXPECT_EQ(rendered.at("8-PAYLOAD").toString(), argument.toString());
  EXPECT_TRUE(rendered.at("8-PAYLOAD").at("typed").boxed<core::TypedByteArray>());
}

TEST_F(CallableTest, ErrorsArriveWithEverythingTheyCarriedAndOnlyOpenCallsAreCancelled) {
  ServiceReference& a = startModule("A");

  // A structured exception: class, message and all error information restored.
  auto structured = await(a.callMethod("failStructured", {}));
  auto const* file = exceptionAs<fn::FileException>(structured.error);
  ASSERT_NE(file, nullptr) << fn::describeException(structured.error);
  fn::FileException expected("cannot open the recording");
  expected.info() = structuredErrorInfo();
  EXPECT_EQ(file->toString(), expected.toString());
  EXPECT_EQ(file->info().stackTrace, expected.info().stackTrace);

  // The library's own exception comes back as itself (its class names it); a class this process
  // does not know as a runtime exception that still names it (thrown by the handler rather than
  // sent, which answers the call all the same); a plain error value, a std::exception and a thrown
  // non-exception as plain runtime exceptions.
  for (auto const& [method, text] : std::vector<std::pair<fn::String, fn::String>>{
           {"failObjectDead", "ObjectDeadException: the tuner went away"},
           {"failUnknownClass", "RuntimeException: only here (ModuleOnlyException: private)"},
           {"failValue", "RuntimeException: disk full"},
           {"throwStd", "RuntimeException: plain failure"},
           {"throwOther", "RuntimeException: Unknown Exception"}}) {
    auto outcome = await(a.callMethod(method, {}));
    EXPECT_NE(exceptionAs<fn::RuntimeException>(outcome.error), nullptr) << method;
    EXPECT_EQ(fn::describeException(outcome.error), text);
  }

  // Cancelled while open: the instance hears of it, and the caller's continuation never runs.
  fn::Promise<fn::Value> held = a.callMethod("hold", {});
  uint32_t heldId = a.lastRequestId();
  auto heldOutcome = watch(held);
  held.cancel();
  EXPECT_EQ(a.pendingCallCount(), 0u);
  EXPECT_EQ(awaitEvent(a, "cancelled"), fn::Value(heldId));

  // Already answered: cancelling sends nothing.
  fn::Promise<fn::Value> answered = a.callMethod("echo", "x");
  auto answeredOutcome = watch(answered);
  ASSERT_TRUE(runLoopUntil(loop, [&] { return answeredOutcome->settled; }));
  answered.cancel();

  // The instance answers the cancelled call anyway: the late answer changes nothing. Its answer
  // comes after any cancellation it heard, and it heard only the one.
  EXPECT_EQ(call(a, "answerHeld"), fn::Value(1));
  EXPECT_EQ(std::ranges::count_if(a.events, [](auto const& e) { return e.first == "cancelled"; }),
            1);
  EXPECT_FALSE(heldOutcome->settled);
  EXPECT_EQ(answeredOutcome->value, fn::Value("x"));
  EXPECT_EQ(a.pendingCallCount(), 0u);
}

TEST_F(CallableTest, InstancesLiveAsLongAsSomeProcessHoldsThemAndDieWithTheirOwner) {
  ServiceReference& a = startModule("A");
  ServiceReference& b = startModule("B");

  // The last holder drops its reference: the owner releases the instance.
  fn::Value first = call(a, "makeChild");
  auto* child = first.at("child").objectAs<ipc::CallableObjectReference>();
  ASSERT_NE(child, nullptr);
  ipc::ObjectId firstId = first.at("id").to<ipc::ObjectId>();
  EXPECT_EQ(child->objectId(), firstId);
  first = fn::Value();
  EXPECT_EQ(awaitEvent(a, "released"), fn::Value(firstId));

  // Handed on to B, it outlives our reference...
  a.events.clear();
  fn::Value second = call(a, "makeChild");
  ipc::ObjectId secondId = second.at("id").to<ipc::ObjectId>();
  EXPECT_EQ(call(b, "keep", second.at("child")), fn::Value(1));
  second = fn::Value();
  drainLoop(loop);
  // A release would reach A before this call, and its event us before the answer.
  call(a, "echo");
  EXPECT_TRUE(a.events.empty());

  // ...until B is killed while holding it. B's open calls fail in the order they were made.
  std::vector<int> order;
  for (int i = 0; i < 3; ++i) {
    b.callMethod("hold", i).then([](fn::Value) { ADD_FAILURE() << "answered"; },
                                 [&order, i](std::exception_ptr error) {
                                   EXPECT_NE(exceptionAs<ipc::ObjectDeadException>(error), nullptr);
                                   order.push_back(i);
                                 });
  }
  int deaths = 0;
  fn::Handle onDead = b.objectDeadSignal().connect([&] { ++deaths; });
  modules["B"]->kill(SIGKILL);
  EXPECT_EQ(modules["B"]->waitForExit(), -SIGKILL);
  EXPECT_EQ(awaitEvent(a, "released"), fn::Value(secondId));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return order.size() == 3; }));
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(deaths, 1);

  // A dead reference refuses at once, sending nothing and using no id.
  uint32_t lastId = b.lastRequestId();
  EXPECT_NE(exceptionAs<ipc::ObjectDeadException>(await(b.callMethod("echo", 1)).error), nullptr);
  EXPECT_EQ(b.lastRequestId(), lastId);
}

TEST_F(CallableTest, ObjectsTravelOnceListedAndComeHomeAsLocalReferences) {
  ServiceReference& a = startModule("A");
  fn::AutoPtr<Thing> thing(new Thing(*worker));
  fn::WeakReference<Thing> weak(thing);

  // Three occurrences in one call: listed once, one use counted, one reference over there,
  // which is callable although that process never registered the class.
  fn::Value seen = call(a, "inspect", fn::Value::array({thing, thing, thing}));
  EXPECT_EQ(seen, fn::Value::map({{"listed", 1},
                                  {"usage", 1},
                                  {"local", false},
                                  {"same", true},
                                  {"callable", true},
                                  {"className", "ipc::CallableObjectReference"}}));

  // The other process calls it through that reference.
  EXPECT_EQ(
      call(a, "callBack", fn::Value::map({{"target", thing}, {"method", "ping"}, {"argument", 5}})),
      fn::Value("pong 5"));
  ASSERT_EQ(thing->calls.size(), 1u);
  EXPECT_NE(thing->calls[0].workerId, worker->workerId());

  // Once A lets go of everything, only our own holders keep the thing.
  EXPECT_TRUE(runLoopUntil(loop, [&] { return thing->usageCount() == 0; }));
  thing.reset();
  EXPECT_TRUE(runLoopUntil(loop, [&] { return weak.expired(); }));
}

TEST(CallableLocal, CallsWithinOneProcessArePostedAndMalformedMessagesAreDropped) {
  fn::uv::Loop loop;
  TestDelegate delegate;
  ipc::Worker worker(delegate, loop, "/nonexistent", "L", "", false);
  worker.onMessage(fn::Value::map({{ipc::key::TYPE, ipc::type::HELLO}, {ipc::key::WORKER_ID, 4}}));
  {
    fn::AutoPtr<Thing> thing(new Thing(worker));
    auto reference = thing->localReference().cast<ipc::CallableObjectReference>();
    ASSERT_TRUE(reference);

    fn::Value answer;
    reference->callMethod("ping", 1).then([&](fn::Value result) { answer = result; });
    EXPECT_TRUE(thing->calls.empty());
    EXPECT_TRUE(runLoopUntil(loop, [&] { return !answer.isNull(); }));
    EXPECT_EQ(answer, fn::Value("pong 1"));
    EXPECT_EQ(thing->calls, (std::vector<CallContext>{{4, 1}}));

    // A cancelled call tells the instance; a call without a method or a reply for an
    // unknown id does nothing but leave a log line.
    LogCapture log;
    fn::Promise<fn::Value> silent = reference->callMethod("quiet", {});
    silent.cancel();
    reference->sendMessage(fn::Value::map({{"TYPE", "CALL"}, {"REQUEST_ID", 9}}));
    thing->sendMessage(4, fn::Value::map({{"TYPE", "CALL_RESPONSE"}, {"REQUEST_ID", 77}}));
    thing->sendMessage(
        4, fn::Value::map({{"TYPE", "CALL_RESPONSE"}, {"REQUEST_ID", 77}, {"RESULT", 1}}));
    EXPECT_TRUE(runLoopUntil(loop, [&] { return thing->cancellations.size() == 1; }));
    drainLoop(loop);
    EXPECT_EQ(thing->cancellations[0], (CallContext{4, 2}));
    EXPECT_EQ(thing->calls.size(), 2u);  // "quiet" only
    EXPECT_TRUE(log.contains("Ignoring a bad call from worker 4"));
    EXPECT_TRUE(log.contains("Dropping a bad message"));
    EXPECT_EQ(reference->pendingCallCount(), 0u);
  }
  drainLoop(loop);
}

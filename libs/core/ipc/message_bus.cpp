#include "core/ipc/message_bus.h"

#include "core/ipc/worker.h"
#include "foundation/logging/category.h"

namespace ipc {
namespace {

fn::logging::Category logBus("ipc.messageBus");

constexpr char const* BUS_MESSAGE = "BUS_MESSAGE";
constexpr char const* BUS_EVENT = "busMessage";

// Never destroyed: the bus must not be released after its worker, at exit.
fn::AutoPtr<MessageBus>& theProcessBus() {
  static auto* bus = new fn::AutoPtr<MessageBus>();
  return *bus;
}

}  // namespace

MessageBus::MessageBus(ObjectReferenceInitializer& initializer)
    : CallableObjectReference(initializer) {}

void MessageBus::sendMessage(fn::String const& name, fn::Value&& body, bool sticky) {
  FN_ASSERT_LOOP_THREAD();
  fn::Value payload = fn::Value::map({{"workerId", worker() ? worker()->workerId() : NO_WORKER},
                                      {"namespace", name},
                                      {"body", std::move(body)},
                                      {"sticky", sticky}});
  CallableObjectReference::sendMessage(
      fn::Value::map({{"TYPE", BUS_MESSAGE}, {"PAYLOAD", std::move(payload)}}));
}

void MessageBus::onEvent(fn::String const& name, fn::Value const& argument) {
  if (name != BUS_EVENT)
    return;
  fn::Value const& space = argument.get("namespace");
  fn::Value const& sticky = argument.get("sticky");
  if (!space.isString()) {
    logBus.log(fn::logging::WRN, "Dropping a bus message without a namespace");
    return;
  }
  bool isSticky = sticky.isBool() && sticky.asBool();
  receiveMessage(space.asString(), argument.get("body"), isSticky);
  if (theProcessBus().get() == this)
    fn::MessageBus::instance().receiveMessage(space.asString(), argument.get("body"), isSticky);
}

fn::Promise<void> MessageBus::getStickyMessages() {
  FN_ASSERT_LOOP_THREAD();
  fn::AutoPtr<MessageBus> self(this);
  return callMethod("getStickyMessages", fn::Value()).then([self](fn::Value const& result) {
    if (!result.isArray())
      return;
    for (auto const& message : result.asArray()) {
      fn::Value const& space = message.get("namespace");
      if (space.isString())
        self->receiveMessage(space.asString(), message.get("body"), true);
    }
  });
}

fn::Promise<fn::AutoPtr<MessageBus>> MessageBus::lookup(Worker& worker, fn::Duration timeout) {
  return lookupInstance<MessageBus>(worker, timeout);
}

fn::AutoPtr<MessageBus> const& MessageBus::processBus() {
  return theProcessBus();
}

fn::Promise<void> MessageBus::setProcessBus(fn::AutoPtr<MessageBus> bus) {
  FN_ASSERT_LOOP_THREAD();
  fn::MessageBus& process = fn::MessageBus::instance();
  theProcessBus() = std::move(bus);
  fn::AutoPtr<MessageBus> const& current = theProcessBus();
  process.setUpstream(current.get());
  if (!current)
    return fn::Promise<void>::resolved();
  // Only the process-wide bus hears these: the bus's own listeners fetch for themselves.
  // The hub handles the posts of setUpstream() first, so the answer already holds them.
  fn::WeakReference<MessageBus> weak(current);
  return current->callMethod("getStickyMessages", fn::Value())
      .then(
          [weak](fn::Value const& result) {
            auto self = weak.lock();
            if (!self || theProcessBus() != self || !result.isArray())
              return;
            for (auto const& message : result.asArray()) {
              fn::Value const& space = message.get("namespace");
              if (space.isString())
                fn::MessageBus::instance().receiveMessage(space.asString(), message.get("body"),
                                                          true);
            }
          },
          [weak](std::exception_ptr error) {
            // Losing the hub meanwhile says it all already.
            auto self = weak.lock();
            if (!self || theProcessBus() != self || !self->worker() || !self->worker()->connected())
              return;
            logBus.log(fn::logging::WRN, "The process could not fetch the sticky bus messages: {}",
                       fn::describeException(error));
          });
}

MessageBusImpl::MessageBusImpl(Worker& worker) : CallableObjectInstance(worker) {}

fn::AutoPtr<ObjectReference> MessageBusImpl::createReference(
    ObjectReferenceInitializer& initializer) {
  return fn::AutoPtr<ObjectReference>(new MessageBus(initializer));
}

void MessageBusImpl::onMessage(uint16_t sourceWorkerId, fn::Value const& message) {
  FN_ASSERT_LOOP_THREAD();
  fn::Value const& type = message.get("TYPE");
  if (!type.isString() || type.asString() != BUS_MESSAGE) {
    CallableObjectInstance::onMessage(sourceWorkerId, message);
    return;
  }
  fn::Value const& payload = message.get("PAYLOAD");
  fn::Value const& space = payload.get("namespace");
  // Nobody could deliver it: dropped here rather than by every receiver.
  if (!space.isString()) {
    logBus.log(fn::logging::WRN, "Dropping a bus message without a namespace from worker {}",
               sourceWorkerId);
    return;
  }
  fn::Value const& sticky = payload.get("sticky");
  if (sticky.isBool() && sticky.asBool())
    _sticky[space.asString()] = payload.get("body");
  broadcastEvent(BUS_EVENT, payload);
}

void MessageBusImpl::onMethodCall(CallContext const& context,
                                  fn::String const& method,
                                  fn::Value const&) {
  FN_ASSERT_LOOP_THREAD();
  if (method != "getStickyMessages")
    return;
  fn::Value messages = fn::Value::array();
  for (auto const& [space, body] : _sticky)
    messages.append(fn::Value::map({{"namespace", space}, {"body", body}}));
  sendResult(context, messages);
}

}  // namespace ipc

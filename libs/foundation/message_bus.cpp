#include "foundation/message_bus.h"

#include "foundation/run_loop.h"

namespace fn {

struct MessageBus::Subscription : Cancellable {
  explicit Subscription(Listener l) : listener(std::move(l)) {}
  void invalidate() override { active = false; }
  bool valid() const override { return active; }
  Listener listener;
  bool active = true;
};

MessageBus::MessageBus() = default;

MessageBus::~MessageBus() {
  // Posted deliveries hold their subscription, not the bus; they must find it cancelled.
  for (auto& [name, subscriptions] : _listeners) {
    for (auto& subscription : subscriptions)
      subscription->invalidate();
  }
}

MessageBus& MessageBus::instance() {
  // Never destroyed: listeners may be registered by statics of other libraries.
  static MessageBus* bus = new MessageBus();
  return *bus;
}

void MessageBus::sendMessage(String const& name, Value&& body, bool sticky) {
  FN_ASSERT_LOOP_THREAD();
  if (_upstream) {
    _upstream->sendMessage(name, std::move(body), sticky);
    return;
  }
  if (sticky)
    _postedSticky[name] = body;
  receiveMessage(name, body, sticky);
}

void MessageBus::setUpstream(MessageBus* upstream) {
  FN_ASSERT_LOOP_THREAD();
  _upstream = upstream;
  if (!_upstream)
    return;
  for (auto& [name, body] : std::exchange(_postedSticky, {}))
    _upstream->sendMessage(name, std::move(body), true);
}

Handle MessageBus::listen(String const& name, Listener listener) {
  FN_ASSERT_LOOP_THREAD();
  auto& subscriptions = _listeners[name];
  std::erase_if(subscriptions, [](AutoPtr<Subscription> const& s) { return !s->valid(); });
  auto subscription = makeAuto<Subscription>(std::move(listener));
  subscriptions.push_back(subscription);
  auto sticky = _sticky.find(name);
  if (sticky != _sticky.end())
    deliver(subscription, name, sticky->second);
  return Handle(subscription);
}

std::optional<Value> MessageBus::getStickyMessage(String const& name) const {
  auto found = _sticky.find(name);
  if (found == _sticky.end())
    return std::nullopt;
  return found->second;
}

void MessageBus::receiveMessage(String const& name, Value const& body, bool sticky) {
  FN_ASSERT_LOOP_THREAD();
  if (sticky)
    _sticky[name] = body;
  auto found = _listeners.find(name);
  if (found == _listeners.end())
    return;
  // A snapshot: a listener subscribed by an earlier delivery gets this message through the
  // sticky replay or not at all, never twice.
  auto subscriptions = found->second;
  for (auto const& subscription : subscriptions) {
    if (subscription->valid())
      deliver(subscription, name, body);
  }
}

void MessageBus::deliver(AutoPtr<Subscription> const& subscription,
                         String const& name,
                         Value const& body) {
  RunLoop* loop = RunLoop::currentLoop();
  if (!loop)
    return;
  loop->post([subscription, name, body] {
    if (subscription->valid())
      subscription->listener(name, body);
  });
}

}  // namespace fn

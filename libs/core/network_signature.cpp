#include "core/network_signature.h"

#include "core/network_adapter.h"
#include "foundation/exception.h"
#include "foundation/logging/category.h"
#include "foundation/mac_address.h"
#include "foundation/network_state_notifier.h"
#include "foundation/uv/loop.h"

namespace core {
namespace {

fn::logging::Category logSignature("core.networkSignature");

// Addresses and neighbours settle a while after a link comes up; these catch that.
constexpr fn::Duration RECHECK_DELAYS[3] = {fn::Duration::seconds(3), fn::Duration::seconds(6),
                                            fn::Duration::seconds(10)};

fn::String hex(uint8_t const* bytes, size_t length) {
  return fn::ByteArray(bytes, bytes + length).toHex();
}

}  // namespace

class NetworkSignature::Listener : public fn::Cancellable {
public:
  explicit Listener(std::move_only_function<void(fn::String const&)> f) : function(std::move(f)) {}
  void invalidate() override { active = false; }
  bool valid() const override { return active; }

  std::move_only_function<void(fn::String const&)> function;
  bool active = true;
};

NetworkSignature& NetworkSignature::instance() {
  static NetworkSignature* signature = new NetworkSignature();
  return *signature;
}

NetworkSignature::NetworkSignature() : _signature(computeNetworkSignature()) {
  logSignature.log(fn::logging::INF, "Initial network signature: {}", _signature);
  auto& loop = fn::uv::Loop::defaultLoop();
  if (loop.isCurrent())
    subscribe();
  else
    loop.post([this] { subscribe(); });
}

NetworkSignature::~NetworkSignature() {
  for (auto& handle : _delayedUpdates)
    handle.invalidate();
  _networkStateHandle.invalidate();
  _listeners.clear();
}

void NetworkSignature::subscribe() {
  _networkStateHandle = fn::NetworkStateNotifier::instance().addChangeListener([this](bool) {
    maybeUpdate();
    auto& loop = fn::uv::Loop::defaultLoop();
    for (size_t i = 0; i < std::size(RECHECK_DELAYS); ++i)
      _delayedUpdates[i] = loop.schedule(RECHECK_DELAYS[i], [this] { maybeUpdate(); });
  });
}

fn::String NetworkSignature::get() const {
  std::lock_guard lock(_mutex);
  return _signature;
}

fn::Handle NetworkSignature::addChangeListener(
    std::move_only_function<void(fn::String const&)> listener) {
  FN_ASSERT_LOOP_THREAD();
  std::erase_if(_listeners, [](fn::AutoPtr<Listener> const& l) { return !l->active; });
  auto entry = fn::makeAuto<Listener>(std::move(listener));
  _listeners.push_back(entry);
  return fn::Handle(entry);
}

void NetworkSignature::maybeUpdate() {
  fn::String signature = computeNetworkSignature();
  {
    std::lock_guard lock(_mutex);
    if (signature == _signature)
      return;
    _signature = signature;
  }
  notify(signature);
}

void NetworkSignature::notify(fn::String const& signature) const {
  logSignature.log(fn::logging::INF, "Notifying network signature change: {}", signature);
  auto listeners = _listeners;
  for (auto& listener : listeners) {
    if (listener->active)
      listener->function(signature);
  }
}

std::vector<fn::IPAddress> NetworkSignature::getActiveGateways() {
  return selectActiveGateways(listNetworkAdapters());
}

fn::String NetworkSignature::computeNetworkSignature() {
  try {
    std::vector<fn::IPAddress> gateways = getActiveGateways();
    std::vector<fn::IPAddress> chosen;
    for (auto const& gateway : gateways) {
      if (gateway.family() == fn::IPAddress::Family::IPV4)
        chosen.push_back(gateway);
    }
    if (chosen.empty())
      chosen = gateways;
    fn::String text;
    for (auto const& gateway : chosen) {
      fn::MacAddress mac;
      try {
        mac = fn::MacAddress::fromIPAddress(gateway);
      } catch (fn::Exception const& e) {
        logSignature.log(fn::logging::ERR, "Failed to determine mac address for gateway {}: {}",
                         gateway.toString(), e.toString());
      }
      if (!text.empty())
        text += "/";
      text +=
          hex(gateway.addr(), gateway.length()) + ":" + hex(mac.bytes().data(), mac.bytes().size());
    }
    return text.empty() ? fn::String(UNKNOWN_SIGNATURE) : text;
  } catch (fn::Exception const& e) {
    logSignature.log(fn::logging::ERR, "Failed to compute network signature: {}", e.toString());
    return UNKNOWN_SIGNATURE;
  }
}

}  // namespace core

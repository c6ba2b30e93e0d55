#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <uv.h>

#include <vector>

#include "foundation/assert.h"
#include "foundation/exception.h"
#include "foundation/logging/category.h"
#include "foundation/netlink_linux.h"
#include "foundation/network_state_notifier.h"
#include "foundation/uv/loop.h"

namespace fn {
namespace {

logging::Category logNotifier("fn.networkStateNotifier");

constexpr unsigned GROUPS =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;

struct Entry : Cancellable {
  explicit Entry(NetworkStateNotifier::Listener l) : listener(std::move(l)) {}
  void invalidate() override { active = false; }
  bool valid() const override { return active; }
  NetworkStateNotifier::Listener listener;
  bool active = true;
};

}  // namespace

// The rtnetlink socket is opened with the first listener and watched by the default loop for
// as long as the process lives.
class NetworkStateNotifier::Impl {
public:
  Handle add(Listener listener) {
    FN_ASSERT_LOOP_THREAD();
    if (!_socket)
      open();
    std::erase_if(_entries, [](AutoPtr<Entry> const& e) { return !e->active; });
    auto entry = makeAuto<Entry>(std::move(listener));
    _entries.push_back(entry);
    return Handle(entry);
  }

private:
  void open() {
    _socket = std::make_unique<netlink::Socket>(GROUPS);
    _poll = new uv_poll_t{};
    uv_poll_init(uv::Loop::defaultLoop().raw(), _poll, _socket->fd());
    _poll->data = this;
    uv_poll_start(_poll, UV_READABLE, [](uv_poll_t* h, int, int) {
      uv::guarded([&] { static_cast<Impl*>(h->data)->changed(); });
    });
    // The watch alone must not keep a loop running that has nothing else to do.
    uv_unref(reinterpret_cast<uv_handle_t*>(_poll));
  }

  void changed() {
    if (!_socket->drain())
      logNotifier.log(logging::WRN, "Reading network notifications failed");
    bool connected = anyLinkUp();
    auto entries = _entries;
    for (auto& entry : entries) {
      if (entry->active)
        entry->listener(connected);
    }
  }

  static bool anyLinkUp() {
    try {
      netlink::Socket socket;
      for (auto const& link : socket.dump(RTM_GETLINK, AF_UNSPEC).links) {
        if (link.type != ARPHRD_LOOPBACK && (link.flags & IFF_LOWER_UP))
          return true;
      }
    } catch (Exception const& e) {
      logNotifier.log(logging::WRN, "Cannot list the network links: {}", e.toString());
    }
    return false;
  }

  std::unique_ptr<netlink::Socket> _socket;
  // Never closed: the notifier lives as long as the process.
  uv_poll_t* _poll = nullptr;
  std::vector<AutoPtr<Entry>> _entries;
};

NetworkStateNotifier::NetworkStateNotifier() : _impl(std::make_unique<Impl>()) {}

NetworkStateNotifier& NetworkStateNotifier::instance() {
  static NetworkStateNotifier* notifier = new NetworkStateNotifier();
  return *notifier;
}

Handle NetworkStateNotifier::addChangeListener(Listener listener) {
  return _impl->add(std::move(listener));
}

}  // namespace fn

// Network-state changes from an rtnetlink socket subscribed to the link, address and route
// groups, watched by the default loop.

#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <uv.h>

#include "foundation/exception.h"
#include "foundation/logging/category.h"
#include "foundation/netlink_linux.h"
#include "foundation/network_state_watch.h"
#include "foundation/uv/loop.h"

namespace fn::network_state {
namespace {

logging::Category logNotifier("fn.networkStateNotifier");

constexpr unsigned GROUPS =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;

bool anyLinkUp() {
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

// Never closed: the watch lasts as long as the process.
struct Watch {
  netlink::Socket socket{GROUPS};
  uv_poll_t poll{};
  std::move_only_function<void(bool)> changed;
};

}  // namespace

void startWatching(std::move_only_function<void(bool connected)> changed) {
  auto* watch = new Watch{.changed = std::move(changed)};
  uv_poll_init(uv::Loop::defaultLoop().raw(), &watch->poll, watch->socket.fd());
  watch->poll.data = watch;
  uv_poll_start(&watch->poll, UV_READABLE, [](uv_poll_t* h, int, int) {
    uv::guarded([&] {
      auto* watch = static_cast<Watch*>(h->data);
      if (!watch->socket.drain())
        logNotifier.log(logging::WRN, "Reading network notifications failed");
      watch->changed(anyLinkUp());
    });
  });
  // The watch alone must not keep a loop running that has nothing else to do.
  uv_unref(reinterpret_cast<uv_handle_t*>(&watch->poll));
}

}  // namespace fn::network_state

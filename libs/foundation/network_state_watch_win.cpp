// Network-state changes from the IP helper: interface, unicast address and route notifications.
// The IP helper calls back on threads of its own, which touch nothing but an atomic flag and
// the loop's post(); the rest happens on the default loop's thread.

// clang-format off
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
// clang-format on

#include <atomic>

#include "foundation/logging/category.h"
#include "foundation/network_state_watch.h"
#include "foundation/uv/loop.h"

namespace fn::network_state {
namespace {

logging::Category logNotifier("fn.networkStateNotifier");

bool anyInterfaceUp() {
  MIB_IF_TABLE2* table = nullptr;
  if (DWORD error = GetIfTable2(&table)) {
    logNotifier.log(logging::WRN, "Cannot list the network interfaces: windows error {}", error);
    return false;
  }
  bool up = false;
  for (ULONG i = 0; i < table->NumEntries && !up; ++i) {
    auto const& row = table->Table[i];
    up = row.Type != IF_TYPE_SOFTWARE_LOOPBACK && row.OperStatus == IfOperStatusUp;
  }
  FreeMibTable(table);
  return up;
}

// Never freed and the subscriptions never cancelled: the watch lasts as long as the process,
// so a late callback always finds it.
struct Watch {
  std::move_only_function<void(bool)> changed;
  std::atomic<bool> pending{false};

  // On an IP helper thread. A burst of notifications costs one post: the flag stays set until
  // the loop has taken the change.
  void signal() {
    if (pending.exchange(true))
      return;
    uv::Loop::defaultLoop().post([this] {
      pending.store(false);
      changed(anyInterfaceUp());
    });
  }
};

void CALLBACK interfaceChanged(void* context, MIB_IPINTERFACE_ROW*, MIB_NOTIFICATION_TYPE) {
  static_cast<Watch*>(context)->signal();
}
void CALLBACK addressChanged(void* context, MIB_UNICASTIPADDRESS_ROW*, MIB_NOTIFICATION_TYPE) {
  static_cast<Watch*>(context)->signal();
}
void CALLBACK routeChanged(void* context, MIB_IPFORWARD_ROW2*, MIB_NOTIFICATION_TYPE) {
  static_cast<Watch*>(context)->signal();
}

void check(char const* what, DWORD result) {
  if (result != NO_ERROR)
    logNotifier.log(logging::WRN, "Cannot subscribe to network {} changes: windows error {}", what,
                    result);
}

}  // namespace

void startWatching(std::move_only_function<void(bool connected)> changed) {
  auto* watch = new Watch{.changed = std::move(changed)};
  HANDLE handle = nullptr;
  check("interface", NotifyIpInterfaceChange(AF_UNSPEC, &interfaceChanged, watch, FALSE, &handle));
  check("address", NotifyUnicastIpAddressChange(AF_UNSPEC, &addressChanged, watch, FALSE, &handle));
  check("route", NotifyRouteChange2(AF_UNSPEC, &routeChanged, watch, FALSE, &handle));
}

}  // namespace fn::network_state

// Sleep prevention through systemd-logind: an Inhibit call over the system D-Bus returns a
// descriptor, and the inhibitor lasts until that descriptor is closed (by us, or by the kernel
// when the process dies). A connection of its own is opened for each call: prevention starts
// rarely, and no connection is left to go stale between two streams.

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <unistd.h>

#include "core/sleep_prevention.h"
#include "foundation/logging/category.h"
#include "foundation/path_manager.h"

namespace core::sleep_prevention {
namespace {

fn::logging::Category logSleep("core.sleepPreventer");

constexpr int CALL_TIMEOUT_MS = 5000;
constexpr char const* WHY = "Streaming media";

struct GErrorHolder {
  GError* error = nullptr;
  ~GErrorHolder() {
    if (error)
      g_error_free(error);
  }
  fn::String text() const { return error ? error->message : "unknown error"; }
};

GDBusConnection* openSystemBus(GErrorHolder& failure) {
  gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &failure.error);
  if (!address)
    return nullptr;
  auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  GDBusConnection* bus =
      g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, &failure.error);
  g_free(address);
  return bus;
}

// The inhibitor's descriptor, or -1.
int inhibit(GDBusConnection* bus, char const* what, GErrorHolder& failure) {
  fn::String who = fn::PathManager::instance().applicationName();
  GUnixFDList* descriptors = nullptr;
  GVariant* reply = g_dbus_connection_call_with_unix_fd_list_sync(
      bus, "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
      "Inhibit", g_variant_new("(ssss)", what, who.c_str(), WHY, "block"), G_VARIANT_TYPE("(h)"),
      G_DBUS_CALL_FLAGS_NONE, CALL_TIMEOUT_MS, nullptr, &descriptors, nullptr, &failure.error);
  if (!reply)
    return -1;
  gint32 index = -1;
  g_variant_get(reply, "(h)", &index);
  int fd = descriptors ? g_unix_fd_list_get(descriptors, index, &failure.error) : -1;
  g_variant_unref(reply);
  if (descriptors)
    g_object_unref(descriptors);
  return fd;
}

}  // namespace

bool begin(int64_t& previousState) {
  GErrorHolder failure;
  GDBusConnection* bus = openSystemBus(failure);
  if (!bus) {
    logSleep.log(fn::logging::DBG, "No system bus: {}", failure.text());
    return false;
  }
  // Idle sleep too where logind allows it; a system that refuses the pair may still grant
  // blocking suspend alone.
  int fd = -1;
  for (char const* what : {"sleep:idle", "sleep"}) {
    GErrorHolder refused;
    fd = inhibit(bus, what, refused);
    if (fd >= 0)
      break;
    logSleep.log(fn::logging::DBG, "Inhibit(\"{}\") failed: {}", what, refused.text());
  }
  g_dbus_connection_close_sync(bus, nullptr, nullptr);
  g_object_unref(bus);
  if (fd < 0)
    return false;
  // Kept one up, so that 0 still means that nothing is held.
  previousState = static_cast<int64_t>(fd) + 1;
  return true;
}

void end(int64_t previousState) {
  if (previousState > 0)
    ::close(static_cast<int>(previousState - 1));
}

}  // namespace core::sleep_prevention

// Sleep prevention against a private D-Bus daemon playing the system bus, with a fake logind
// (the test executable in the role "--fake-logind") that reports each Inhibit call and the
// release of each inhibitor on its standard output.

#include "core/sleep_preventer.h"

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <glib-unix.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <thread>

#include "child_process.h"
#include "child_role.h"
#include "foundation/assert.h"
#include "foundation/environment.h"
#include "foundation/file.h"
#include "loop_runner.h"
#include "test_support.h"

// GDBus hands work to a thread of its own through GLib's allocator and locks, which are not
// built for ThreadSanitizer: it cannot see their ordering and would report GLib's own memory.
// Only races with a GLib frame on a stack are left out; our code's are still reported.
extern "C" __attribute__((visibility("default"))) char const* __tsan_default_suppressions() {
  return "race:libglib-2.0.so\nrace:libgio-2.0.so\nrace:libgobject-2.0.so\n";
}

namespace core {
namespace {

using testing::LogCapture;
using testing_support::ChildProcess;
using testing_support::runLoopUntil;

constexpr char const* LOGIND_INTERFACE = R"(<node>
  <interface name="org.freedesktop.login1.Manager"><method name="Inhibit">
    <arg type="s" direction="in"/> <arg type="s" direction="in"/> <arg type="s" direction="in"/>
    <arg type="s" direction="in"/> <arg type="h" direction="out"/>
  </method></interface>
</node>)";

void say(char const* event, char const* what) {
  std::printf("%s %s\n", event, what);
  std::fflush(stdout);
}

// The handed-out descriptor is the write end of a pipe: the read end hangs up once the client
// closed its copy, which is how logind learns that an inhibitor ended.
void inhibit(GDBusMethodInvocation* invocation, char const* what, bool refuseIdle) {
  if (refuseIdle && std::strcmp(what, "sleep:idle") == 0) {
    say("refused", what);
    g_dbus_method_invocation_return_dbus_error(
        invocation, "org.freedesktop.DBus.Error.AccessDenied", "idle is not for you");
    return;
  }
  int ends[2];
  if (::pipe(ends) != 0)
    std::abort();
  GUnixFDList* list = g_unix_fd_list_new_from_array(&ends[1], 1);  // takes the write end
  say("inhibit", what);
  g_dbus_method_invocation_return_value_with_unix_fd_list(invocation, g_variant_new("(h)", 0),
                                                          list);
  g_object_unref(list);
  char* name = g_strdup(what);
  g_unix_fd_add(
      ends[0], G_IO_HUP,
      [](int fd, GIOCondition, gpointer data) -> gboolean {
        say("released", static_cast<char*>(data));
        g_free(data);
        ::close(fd);
        return G_SOURCE_REMOVE;
      },
      name);
}

int fakeLogind(int argc, char** argv) {
  static bool refuseIdle = argc > 2 && std::strcmp(argv[2], "--refuse-idle") == 0;
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
  if (!bus)
    return 1;
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(LOGIND_INTERFACE, nullptr);
  static GDBusInterfaceVTable const vtable = {
      [](GDBusConnection*, char const*, char const*, char const*, char const*, GVariant* parameters,
         GDBusMethodInvocation* invocation, gpointer) {
        char const* what = nullptr;
        g_variant_get(parameters, "(&s&s&s&s)", &what, nullptr, nullptr, nullptr);
        inhibit(invocation, what, refuseIdle);
      },
      nullptr,
      nullptr,
      {}};
  g_dbus_connection_register_object(bus, "/org/freedesktop/login1", node->interfaces[0], &vtable,
                                    nullptr, nullptr, nullptr);
  g_bus_own_name_on_connection(
      bus, "org.freedesktop.login1", G_BUS_NAME_OWNER_FLAGS_NONE,
      [](GDBusConnection*, char const*, gpointer) { say("ready", "login1"); }, nullptr, nullptr,
      nullptr);
  g_main_loop_run(g_main_loop_new(nullptr, false));
  return 0;
}

[[maybe_unused]] bool const logindRole =
    testing_support::registerChildRole("--fake-logind", &fakeLogind);

class SleepPreventerTest : public ::testing::Test {
protected:
  void SetUp() override {
    fn::String socket = root.file("system_bus_socket");
    fn::File(root.file("bus.conf"))
        .writeAll(fn::ByteArray(fmt::format(R"(<busconfig>
  <type>system</type>
  <listen>unix:path={}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/> <allow own="*"/> <allow send_destination="*"/> <allow receive_sender="*"/>
  </policy>
</busconfig>
)",
                                            socket)));
    daemon = ChildProcess::start(
        loop, {.file = "/usr/bin/dbus-daemon",
               .arguments = {"--config-file=" + root.file("bus.conf"), "--nofork", "--nopidfile"},
               .capture = true});
    ASSERT_TRUE(runLoopUntil(loop, [&] { return fn::File(socket).exists(); })) << daemon->err();
    fn::Environment::set("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + socket);
  }

  void TearDown() override { fn::Environment::unset("DBUS_SYSTEM_BUS_ADDRESS"); }

  void startLogind(std::vector<fn::String> arguments = {}) {
    arguments.insert(arguments.begin(), "--fake-logind");
    logind = ChildProcess::start(
        loop, {.file = fn::uv::executablePath(), .arguments = arguments, .capture = true});
    ASSERT_TRUE(runLoopUntil(loop, [&] { return said("ready login1") || logind->exited(); }))
        << logind->err();
  }

  bool said(std::string_view line) const {
    return logind && logind->out().find(fn::String(line) + "\n") != fn::String::npos;
  }

  testing::TemporaryRoot root;
  fn::uv::Loop loop;
  std::unique_ptr<ChildProcess> daemon;
  std::unique_ptr<ChildProcess> logind;
};

TEST_F(SleepPreventerTest, NestedPreventersAndCopiesHoldOneInhibitorUntilTheLastGoes) {
  startLogind();
  LogCapture log;
  std::optional<SleepPreventer> first(std::in_place);
  {
    SleepPreventer second, third;
    SleepPreventer copy(*first);
    ASSERT_TRUE(runLoopUntil(loop, [&] { return said("inhibit sleep:idle"); }));
  }
  // Still held: the releases of the inner three are not the last.
  EXPECT_FALSE(runLoopUntil(
      loop, [&] { return said("released sleep:idle"); }, fn::Duration::milliseconds(200)));
  first.reset();
  ASSERT_TRUE(runLoopUntil(loop, [&] { return said("released sleep:idle"); }));

  // The next activation asks again.
  { SleepPreventer again; }
  fn::String const once = "inhibit sleep:idle\nreleased sleep:idle\n";
  EXPECT_TRUE(runLoopUntil(loop, [&] { return logind->out() == "ready login1\n" + once + once; }))
      << logind->out();
  EXPECT_TRUE(log.linesOf("core.sleepPreventer").empty());
}

TEST_F(SleepPreventerTest, ASystemThatRefusesIdleSleepIsAskedForSleepAlone) {
  startLogind({"--refuse-idle"});
  {
    SleepPreventer preventer;
    ASSERT_TRUE(runLoopUntil(loop, [&] { return said("inhibit sleep"); })) << logind->out();
  }
  ASSERT_TRUE(runLoopUntil(loop, [&] { return said("released sleep"); }));
  EXPECT_EQ(logind->out(), "ready login1\nrefused sleep:idle\ninhibit sleep\nreleased sleep\n");
}

TEST_F(SleepPreventerTest, WithoutLogindTheFailureIsLoggedAndThePreventerStillCounts) {
  for (bool busThere : {true, false}) {
    SCOPED_TRACE(busThere);
    if (!busThere)
      fn::Environment::set("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + root.file("nobody_here"));
    LogCapture log;
    { SleepPreventer first, second; }
    auto lines = log.linesOf("core.sleepPreventer");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "Failed to set system sleep state");
    EXPECT_EQ(lines[0].priority, fn::logging::ERR);
  }

  // Off the main thread, both ends of a preventer's life are flagged.
  std::vector<fn::debug::AssertionInfo> failures;
  auto previous = fn::debug::setAssertionHook(
      [&](fn::debug::AssertionInfo const& info) { failures.push_back(info); });
  std::thread([] { SleepPreventer offThread; }).join();
  fn::debug::setAssertionHook(std::move(previous));
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_EQ(failures[0].condition, "Function must be called on main thread");
  EXPECT_EQ(failures[0].function, "SleepPreventer");
  EXPECT_EQ(failures[1].function, "~SleepPreventer");
}

}  // namespace
}  // namespace core

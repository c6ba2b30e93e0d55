// The network signature in network namespaces the test makes: each scenario runs the test
// executable (role "--netsig") under `unshare -n`, in a namespace of its own, where a setup
// script builds adapters with `ip`; gateways that must answer live in a second namespace held
// by a process of the child. Nothing leaves those namespaces. Root only.

#include "core/network_signature.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>

#include "child_process.h"
#include "child_role.h"
#include "foundation/environment.h"
#include "foundation/uv/loop.h"
#include "loop_runner.h"
#include "test_support.h"

extern char** environ;

namespace core {
namespace {

using testing::LogCapture;

constexpr char const* PRELUDE = R"(set -e
gw() { nsenter -t "$GW" -n "$@"; }
# veth NAME MAC: an adapter here whose peer NAMEp, with hardware address MAC, is in the
# gateways' namespace.
veth() {
  ip link add "$1" type veth peer name "$1p" netns "$GW"
  gw ip link set "$1p" address "$2" up
  ip link set "$1" up
}
)";

fn::String netNamespace(pid_t pid) {
  std::error_code ignored;
  return std::filesystem::read_symlink(fmt::format("/proc/{}/ns/net", pid), ignored).string();
}

/// A process in a network namespace of its own, for the gateways; killed on destruction.
struct GatewayNamespace {
  GatewayNamespace() {
    char const* argv[] = {"unshare", "-n", "sleep", "60", nullptr};
    if (posix_spawnp(&pid, "unshare", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
      pid = -1;
    // unshare replaces itself with sleep once the namespace is made.
    for (int i = 0; i < 500 && pid > 0 && netNamespace(pid) == netNamespace(getpid()); ++i)
      ::usleep(2000);
  }
  ~GatewayNamespace() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
  }
  pid_t pid = -1;
};

bool runScript(fn::String const& script) {
  std::FILE* shell = ::popen("sh -s >&2", "w");
  if (!shell)
    return false;
  fn::String text = fn::String(PRELUDE) + script + "\n";
  std::fwrite(text.data(), 1, text.size(), shell);
  return ::pclose(shell) == 0;
}

// The role "--netsig SETUP [CHANGE...]": prints the signature after SETUP; then runs each CHANGE
// with a listener there and prints what it hears ("changed ..."); then the signature's log
// lines.
int reportSignature(int argc, char** argv) {
  GatewayNamespace gateways;
  if (gateways.pid <= 0)
    return 3;
  fn::Environment::set("GW", fn::String::number(gateways.pid));
  if (argc < 3 || !runScript(argv[2]))
    return 4;
  fn::uv::Loop& loop = fn::uv::Loop::defaultLoop();
  LogCapture log;
  auto& signature = NetworkSignature::instance();
  fmt::print("{}\n", signature.get());
  // Each further script runs once the listener heard the change the one before made, and the
  // notifications of that change are all read. What is heard within 1.5 s counts as at once,
  // what comes later only a re-check can have found.
  std::vector<fn::String> heard;
  fn::Handle listening =
      signature.addChangeListener([&](fn::String const& changed) { heard.push_back(changed); });
  for (int i = 3; i < argc; ++i) {
    size_t before = heard.size();
    auto started = std::chrono::steady_clock::now();
    if (!runScript(argv[i]))
      return 4;
    testing_support::runLoopUntil(
        loop, [&] { return heard.size() > before; }, fn::Duration::seconds(15));
    bool late = std::chrono::steady_clock::now() - started > std::chrono::milliseconds(1500);
    fmt::print("changed {} {}\n", heard.size() > before ? heard.back() : "(nothing)",
               late ? "later" : "at once");
    testing_support::runLoopUntil(
        loop, [] { return false; }, fn::Duration::milliseconds(200));
  }
  for (auto const& line : log.linesOf("core.networkSignature"))
    fmt::print("{} {}\n", fn::logging::priorityName(line.priority), line.text);
  return 0;
}

[[maybe_unused]] bool const netsigRole =
    testing_support::registerChildRole("--netsig", &reportSignature);

fn::String inNamespace(std::vector<fn::String> scripts) {
  fn::uv::Loop loop;
  std::vector<fn::String> arguments{"-n", fn::uv::executablePath(), "--netsig"};
  for (auto& s : scripts)
    arguments.push_back(s);
  auto child = testing_support::ChildProcess::start(
      loop, {.file = "/usr/bin/unshare", .arguments = arguments, .capture = true});
  EXPECT_EQ(child->waitForExit(fn::Duration::seconds(30)), 0) << child->err();
  return child->out();
}

class NetworkSignatureTest : public ::testing::Test {
protected:
  void SetUp() override {
    if (::geteuid() != 0)
      GTEST_SKIP() << "network namespaces need root";
  }
};

// An adapter whose gateway 192.168.1.1 is known to the neighbour table (a permanent entry), as
// 2001:db8::1 is, unless a scenario lets a real gateway answer.
fn::String const ETHERNET = R"(veth eth0 02:00:00:00:00:01
ip addr add 192.168.1.10/24 dev eth0
ip neigh add 192.168.1.1 lladdr 00:11:22:33:44:55 dev eth0 nud permanent
)";

TEST_F(NetworkSignatureTest, GatewaysOfUsableAdaptersMakeTheSignature) {
  fn::String const ipv6 = ETHERNET + R"(ip -6 addr add 2001:db8::10/64 dev eth0 nodad
ip -6 neigh add 2001:db8::1 lladdr 00:11:22:33:44:77 dev eth0 nud permanent
ip -6 route add default via 2001:db8::1 dev eth0
)";
  struct Scenario {
    char const* name;
    fn::String setup;
    fn::String expected;
    fn::String errors = "";
  } const scenarios[] = {
      {"a gateway that answers for itself",
       R"(veth eth0 00:11:22:33:44:55
gw ip addr add 192.168.1.1/24 dev eth0p
ip addr add 192.168.1.10/24 dev eth0
ip route add default via 192.168.1.1)",
       "c0a80101:001122334455\n"},
      {"IPv6 gateways only", ipv6, "20010db8000000000000000000000001:001122334477\n"},
      {"IPv4 preferred over IPv6", ipv6 + "ip route add default via 192.168.1.1 dev eth0",
       "c0a80101:001122334455\n"},
      {"a tunnel never contributes",
       ETHERNET + R"(ip route add default via 192.168.1.1 dev eth0 metric 100
ip tuntap add tun0 mode tun
ip addr add 10.8.0.2/24 dev tun0
ip link set tun0 up
ip route add default via 10.8.0.1 dev tun0 metric 50 onlink)",
       "c0a80101:001122334455\n"},
      {"no gateway", ETHERNET, "??????:????????????\n"},
      {"a gateway that nobody answers for has an empty MAC",
       R"(veth eth0 02:00:00:00:00:01
gw ip addr add 192.168.1.2/24 dev eth0p
ip addr add 192.168.1.10/24 dev eth0
echo 1 > /proc/sys/net/ipv4/neigh/eth0/mcast_solicit
echo 100 > /proc/sys/net/ipv4/neigh/eth0/retrans_time_ms
ip route add default via 192.168.1.1)",
       "c0a80101:000000000000\n",
       "ERR Failed to determine mac address for gateway 192.168.1.1: IOException: No neighbour "
       "answered for the address (192.168.1.1)\n"},
  };
  for (auto const& scenario : scenarios) {
    SCOPED_TRACE(scenario.name);
    EXPECT_EQ(inNamespace({scenario.setup}),
              scenario.expected + scenario.errors +
                  "INF Initial network signature: " + scenario.expected);
  }
}

// A neighbour change is no network change: only the re-check 3 s after the last one sees it.
TEST_F(NetworkSignatureTest, ChangesReachTheListenersAtOnceAndWhatSettlesLaterOnARecheck) {
  fn::String out = inNamespace(
      // No IPv6: its address configuration would send notifications of its own meanwhile.
      {"echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6\n" + ETHERNET +
           R"(ip neigh add 192.168.1.254 lladdr 00:11:22:33:44:fe dev eth0 nud permanent
ip route add default via 192.168.1.1)",
       "ip route replace default via 192.168.1.254",
       "ip neigh replace 192.168.1.254 lladdr 00:11:22:33:44:fd dev eth0 "
       "nud permanent"});
  EXPECT_EQ(std::string(out),
            "c0a80101:001122334455\n"
            "changed c0a801fe:0011223344fe at once\n"
            "changed c0a801fe:0011223344fd later\n"
            "INF Initial network signature: c0a80101:001122334455\n"
            "INF Notifying network signature change: c0a801fe:0011223344fe\n"
            "INF Notifying network signature change: c0a801fe:0011223344fd\n");
}

}  // namespace
}  // namespace core

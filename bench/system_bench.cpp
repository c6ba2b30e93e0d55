// lumaren-system-bench: the system-integration services.
//
//  - GLib through the integration against a plain GMainLoop, in the same run: how long an idle
//    source waits from g_idle_add to its dispatch, and how late a 1 ms timeout fires.
//  - The CPU time of the process while its libuv loop and the GLib context (driven by the
//    integration) both have nothing to do.
//  - CommandIPC::send to onCommand on a pipe served by the same process.
//
//   lumaren-system-bench [--quick]

#include <glib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <vector>

#include "core/command_ipc.h"
#include "core/gmain_context_integration.h"
#include "foundation/environment.h"
#include "foundation/logging/category.h"
#include "foundation/uv/loop.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Settings {
  int idleRounds = 20000;
  int timeoutRounds = 500;
  int commandRounds = 5000;
  int quietSeconds = 10;
};

double micros(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

// Re-adds an idle source from each dispatch and records how long each waited; `run` drives the
// context until `done` holds.
struct GLibProbe {
  std::vector<double> waits;
  int rounds = 0;
  Clock::time_point added;

  static gboolean idle(gpointer data) {
    auto* self = static_cast<GLibProbe*>(data);
    self->waits.push_back(micros(Clock::now() - self->added));
    if (static_cast<int>(self->waits.size()) < self->rounds) {
      self->added = Clock::now();
      g_idle_add(&GLibProbe::idle, self);
    }
    return G_SOURCE_REMOVE;
  }
  static gboolean timeout(gpointer data) {
    auto* self = static_cast<GLibProbe*>(data);
    // How late past its 1 ms.
    self->waits.push_back(micros(Clock::now() - self->added) - 1000);
    if (static_cast<int>(self->waits.size()) < self->rounds) {
      self->added = Clock::now();
      g_timeout_add(1, &GLibProbe::timeout, self);
    }
    return G_SOURCE_REMOVE;
  }

  void start(bool idleSource, int count) {
    waits.clear();
    rounds = count;
    added = Clock::now();
    if (idleSource)
      g_idle_add(&GLibProbe::idle, this);
    else
      g_timeout_add(1, &GLibProbe::timeout, this);
  }
  bool done() const { return static_cast<int>(waits.size()) >= rounds; }
};

double plainGLib(bool idleSource, int rounds) {
  GLibProbe probe;
  probe.start(idleSource, rounds);
  while (!probe.done())
    g_main_context_iteration(nullptr, true);
  return median(probe.waits);
}

double integrated(fn::uv::Loop& loop, bool idleSource, int rounds) {
  GLibProbe probe;
  probe.start(idleSource, rounds);
  loop.runUntil([&] { return probe.done(); });
  return median(probe.waits);
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double commandLatency(fn::uv::Loop& loop, int rounds) {
  auto server = fn::makeAuto<core::CommandIPC>();
  std::vector<double> latencies;
  Clock::time_point sent;
  bool arrived = false;
  fn::Handle received = server->onCommand().connect([&](fn::Value) {
    latencies.push_back(micros(Clock::now() - sent));
    arrived = true;
  });
  server->bind();
  for (int i = 0; i < rounds; ++i) {
    arrived = false;
    bool done = false;
    sent = Clock::now();
    core::CommandIPC::send(fn::Value::map({{"arguments", fn::Value::array({"--open", "a.mkv"})}}),
                           [&] { done = true; });
    loop.runUntil([&] { return arrived && done; });
  }
  server->stop();
  return median(latencies);
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  if (argc > 1 && std::string_view(argv[1]) == "--quick")
    settings = Settings{2000, 100, 500, 2};
  fn::logging::CategoryManager::instance().setThreshold("*", 1);
  char pattern[] = "/tmp/lumaren-system-bench-XXXXXX";
  fn::Environment::set("XDG_RUNTIME_DIR", ::mkdtemp(pattern));

  // Plain GLib first: the integration is set up once per process and stays.
  double plainIdle = plainGLib(true, settings.idleRounds);
  double plainTimeout = plainGLib(false, settings.timeoutRounds);

  fn::uv::Loop& loop = fn::uv::Loop::defaultLoop();
  core::GMainContextIntegration::init(loop);
  double ourIdle = integrated(loop, true, settings.idleRounds);
  double ourTimeout = integrated(loop, false, settings.timeoutRounds);

  fmt::print(
      "GLib idle source, add to dispatch (median):   plain {:.2f} us, integrated {:.2f} us "
      "({:.2f}x)\n",
      plainIdle, ourIdle, ourIdle / plainIdle);
  fmt::print(
      "GLib 1 ms timeout, lateness (median):          plain {:.1f} us, integrated {:.1f} us\n",
      plainTimeout, ourTimeout);
  fmt::print(
      "GLib 1 ms timeout, add to dispatch (median):   plain {:.1f} us, integrated {:.1f} us "
      "({:.3f}x)\n",
      plainTimeout + 1000, ourTimeout + 1000, (ourTimeout + 1000) / (plainTimeout + 1000));

  double before = cpuSeconds();
  auto start = Clock::now();
  bool quietOver = false;
  fn::Handle quiet =
      loop.schedule(fn::Duration::seconds(settings.quietSeconds), [&] { quietOver = true; });
  loop.runUntil([&] { return quietOver; });
  fmt::print("CPU time while idle for {:.1f} s:                 {:.2f} ms\n",
             std::chrono::duration<double>(Clock::now() - start).count(),
             (cpuSeconds() - before) * 1000);

  fmt::print("CommandIPC::send to onCommand (median):       {:.1f} us\n",
             commandLatency(loop, settings.commandRounds));
  core::GMainContextIntegration::quit();
  return 0;
}

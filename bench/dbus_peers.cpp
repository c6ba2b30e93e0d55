#include "dbus_peers.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <cstdio>

namespace bench {

namespace {

constexpr char const* SERVICE = "org.lumaren.Bench";
constexpr char const* PATH = "/org/lumaren/Bench";
constexpr char const* INTERFACE = "org.lumaren.Bench";

// The same content as the framework's call: a text and a number, both answered back.
int echo(sd_bus_message* call, void*, sd_bus_error*) {
  char const* data = nullptr;
  int32_t seq = 0;
  int rc = sd_bus_message_read(call, "si", &data, &seq);
  if (rc < 0)
    return rc;
  return sd_bus_reply_method_return(call, "si", data, seq);
}

sd_bus_vtable const VTABLE[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "si", "si", echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

struct Pipeline {
  sd_bus* bus;
  int issued;
  int done;
  int total;
  bool failed;
};

int answered(sd_bus_message* reply, void* data, sd_bus_error*);

void issueCall(Pipeline& p) {
  ++p.issued;
  if (sd_bus_call_method_async(p.bus, nullptr, SERVICE, PATH, INTERFACE, "Echo", answered, &p, "si",
                               "hello, world", p.issued) < 0)
    p.failed = true;
}

int answered(sd_bus_message* reply, void* data, sd_bus_error*) {
  auto& p = *static_cast<Pipeline*>(data);
  if (sd_bus_message_is_method_error(reply, nullptr))
    p.failed = true;
  ++p.done;
  if (p.issued < p.total)
    issueCall(p);
  return 0;
}

sd_bus* open(fn::String const& address) {
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0)
    return nullptr;
  sd_bus_set_address(bus, address.c_str());
  sd_bus_set_bus_client(bus, 1);
  if (sd_bus_start(bus) < 0) {
    sd_bus_unref(bus);
    return nullptr;
  }
  return bus;
}

}  // namespace

int runDbusServer(fn::String const& address) {
  sd_bus* bus = open(address);
  if (!bus)
    return 1;
  sd_bus_slot* slot = nullptr;
  sd_bus_add_object_vtable(bus, &slot, PATH, INTERFACE, VTABLE, nullptr);
  if (sd_bus_request_name(bus, SERVICE, 0) < 0)
    return 1;
  for (;;) {
    int rc = sd_bus_process(bus, nullptr);
    if (rc < 0)
      return 1;
    if (rc == 0)
      sd_bus_wait(bus, UINT64_MAX);
  }
}

Figures measureDbus(Settings const& settings) {
  Figures figures;
  fn::String socket = tempPath("dbus");
  unlink(socket.c_str());
  fn::String address = "unix:path=" + socket;
  pid_t daemon = fork();
  if (daemon == 0) {
    // It complains that it may not raise its descriptor limit, which does not matter here.
    int null = ::open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile",
           ("--address=" + address).c_str(), nullptr);
    _exit(127);
  }
  waitForFile(socket);
  pid_t server = spawnSelf({"--role", "dbus-server", "--address", address});
  sd_bus* bus = open(address);
  // Wait until the server owns its name.
  bool ready = false;
  for (int i = 0; bus && i < 500 && !ready; ++i) {
    sd_bus_message* reply = nullptr;
    ready = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "GetNameOwner", nullptr, &reply, "s",
                               SERVICE) >= 0;
    sd_bus_message_unref(reply);
    if (!ready)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (!ready) {
    std::fprintf(stderr, "lumaren-bench: the D-Bus peers could not be started\n");
  } else {
    std::vector<double> samples;
    for (int i = 0; i < settings.latencyRounds + 100; ++i) {
      auto sent = Clock::now();
      sd_bus_message* reply = nullptr;
      if (sd_bus_call_method(bus, SERVICE, PATH, INTERFACE, "Echo", nullptr, &reply, "si",
                             "hello, world", i) < 0)
        break;
      sd_bus_message_unref(reply);
      samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
    }
    if (samples.size() > 100) {
      samples.erase(samples.begin(), samples.begin() + 100);
      figures.medianMicros = median(samples);
    }

    // WINDOW calls in flight, each answer issuing the next call.
    Pipeline pipeline{bus, 0, 0, settings.throughputRounds, false};
    auto start = Clock::now();
    while (pipeline.issued < WINDOW)
      issueCall(pipeline);
    while (pipeline.done < pipeline.total && !pipeline.failed) {
      int rc = sd_bus_process(bus, nullptr);
      if (rc < 0)
        break;
      if (rc == 0)
        sd_bus_wait(bus, UINT64_MAX);
    }
    if (!pipeline.failed) {
      figures.roundTripsPerSecond =
          pipeline.done / std::chrono::duration<double>(Clock::now() - start).count();
    }
  }
  if (bus)
    sd_bus_flush_close_unref(bus);
  finish(server);
  finish(daemon);
  unlink(socket.c_str());
  return figures;
}

}  // namespace bench

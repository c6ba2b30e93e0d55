// lumaren-bench: a routed round trip of a small object message from worker A through the hub
// to worker B and back (three processes), beside the same exchange over bare Unix sockets
// relayed by a minimal libuv relay (the floor). Each figure is taken unpinned and with every
// process on CPU 0, which removes the cross-CPU wake-up cost and shows the software's own.
// The "call" rows measure a remote method call over the same route: callMethod in A,
// onMethodCall and sendResult in B, the promise fulfilled and its continuation run in A. The
// "D-Bus" rows measure the same call between two sd-bus peers through a private dbus-daemon.
// Then the cost of the hub's monitor hook, and the scale runs (scale_runs.h).
//
//   lumaren-bench [--quick] [--only messages|floor|calls|dbus|monitor|scale] [--cpu0] [--profile]
//
// --cpu0 takes only the figures on CPU 0; --profile runs one latency round and a million round
// trips, so that a profiler sees the throughput phase alone.

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "bench_support.h"
#include "core/ipc/callable_object.h"
#include "core/ipc/dispatcher.h"
#include "core/ipc/hub_inspector.h"
#include "core/ipc/object.h"
#include "core/ipc/registry.h"
#include "core/ipc/worker.h"
#include "dbus_peers.h"
#include "foundation/file.h"
#include "foundation/logging/category.h"
#include "foundation/uv/process.h"
#include "scale_runs.h"

namespace {

using namespace bench;

// ---- the framework: ipc::Worker, ObjectInstance and ObjectReference through a Dispatcher ----

class Echo : public ipc::ObjectInstance {
public:
  using ipc::ObjectInstance::ObjectInstance;

protected:
  void onMessage(uint16_t source, fn::Value const& message) override {
    sendMessage(source, message);
  }
};

class Caller : public ipc::ObjectReference {
public:
  using ipc::ObjectReference::ObjectReference;
  std::function<void()> onReply;

protected:
  void onMessage(fn::Value const&) override { onReply(); }
};

int runHub(fn::String const& pipeFile) {
  fn::uv::Loop loop;
  ipc::Dispatcher dispatcher(loop, fn::Duration::seconds(30));
  dispatcher.bind();
  dispatcher.start();
  fn::File(pipeFile + ".tmp").writeAll(fn::ByteArray(dispatcher.pipePath()));
  fn::File(pipeFile + ".tmp").moveTo(pipeFile);
  loop.run();
  return 0;
}

int runEcho(fn::String const& pipe) {
  fn::uv::Loop loop;
  ipc::Worker::ClientDelegate delegate;
  ipc::Worker worker(delegate, loop, pipe, "echo", "", false);
  fn::AutoPtr<Echo> echo;
  worker.connect();
  loop.runUntil([&] { return worker.connected(); });
  echo = fn::AutoPtr<Echo>(new Echo(worker));  // object id 1: the first of worker 1
  loop.run();
  return 0;
}

// B of the call measurement: answers every call with its argument.
class Callee : public ipc::CallableObjectInstance {
public:
  using ipc::CallableObjectInstance::CallableObjectInstance;

protected:
  void onMethodCall(CallContext const& context,
                    fn::String const&,
                    fn::Value const& argument) override {
    sendResult(context, argument);
  }
};

int runCallee(fn::String const& pipe) {
  fn::uv::Loop loop;
  ipc::Worker::ClientDelegate delegate;
  ipc::Worker worker(delegate, loop, pipe, "callee", "", false);
  fn::AutoPtr<Callee> callee;
  worker.connect();
  loop.runUntil([&] { return worker.connected(); });
  callee = fn::AutoPtr<Callee>(new Callee(worker));  // object id 1: the first of worker 1
  loop.run();
  return 0;
}

// The route under test: a hub process, B (a process in `role` that serves object 1, the first
// of worker 1) and A, this process's worker, connected after B.
struct Route {
  explicit Route(char const* role) {
    fn::String pipeFile = tempPath("pipe");
    hub = spawnSelf({"--role", "hub", "--pipe-file", pipeFile});
    waitForFile(pipeFile);
    fn::String pipe = fn::File(pipeFile).readAll().view();
    fn::File(pipeFile).remove();
    server = spawnSelf({"--role", role, "--pipe", pipe});
    worker = std::make_unique<ipc::Worker>(delegate, loop, pipe, "caller", "", false);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    worker->connect();
    loop.runUntil([&] { return worker->connected(); });
  }
  ~Route() {
    worker->stop();
    finish(server);
    finish(hub);
  }

  fn::uv::Loop loop;
  ipc::Worker::ClientDelegate delegate;
  std::unique_ptr<ipc::Worker> worker;
  pid_t hub = 0;
  pid_t server = 0;
};

Figures measureCall(Settings const& settings) {
  Route route("callee");
  fn::uv::Loop& loop = route.loop;
  ipc::ObjectReferenceInitializer init{route.worker.get(), (0u << 16) + 1, nullptr, "Callee"};
  fn::AutoPtr<ipc::CallableObjectReference> reference(new ipc::CallableObjectReference(init));
  fn::Value argument = fn::Value::map({{"data", "hello, world"}, {"seq", 1}});

  Figures figures;
  // Latency: one call in flight.
  std::vector<double> samples;
  bool answered = false;
  for (int i = 0; i < settings.latencyRounds + 100; ++i) {
    auto sent = Clock::now();
    answered = false;
    reference->callMethod("echo", argument).then([&answered, &samples, sent](fn::Value) {
      samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
      answered = true;
    });
    loop.runUntil([&] { return answered; });
  }
  samples.erase(samples.begin(), samples.begin() + 100);  // warm-up
  figures.medianMicros = median(samples);

  // Throughput: WINDOW calls in flight, each answer issuing the next call.
  int done = 0, issued = 0;
  std::function<void()> issue = [&] {
    ++issued;
    reference->callMethod("echo", argument).then([&](fn::Value) {
      ++done;
      if (issued < settings.throughputRounds)
        issue();
    });
  };
  auto start = Clock::now();
  while (issued < WINDOW)
    issue();
  loop.runUntil([&] { return done == settings.throughputRounds; });
  figures.roundTripsPerSecond = done / std::chrono::duration<double>(Clock::now() - start).count();

  reference.reset();
  return figures;
}

/// Round trips per second with WINDOW messages in flight.
double messageThroughput(fn::uv::Loop& loop, Caller& caller, int rounds) {
  fn::Value message = fn::Value::map({{"data", "hello, world"}, {"seq", 1}});
  int done = 0, issued = 0;
  caller.onReply = [&] {
    ++done;
    if (issued < rounds) {
      ++issued;
      caller.sendMessage(message);
    }
  };
  auto start = Clock::now();
  for (; issued < WINDOW; ++issued)
    caller.sendMessage(message);
  loop.runUntil([&] { return done == rounds; });
  return done / std::chrono::duration<double>(Clock::now() - start).count();
}

Figures measureFramework(Settings const& settings) {
  Route route("echo");
  fn::uv::Loop& loop = route.loop;
  ipc::ObjectReferenceInitializer init{route.worker.get(), (0u << 16) + 1, nullptr, "Echo"};
  fn::AutoPtr<Caller> caller(new Caller(init));
  fn::Value message = fn::Value::map({{"data", "hello, world"}, {"seq", 1}});

  Figures figures;
  // Latency: one message in flight.
  std::vector<double> samples;
  int outstanding = 0;
  Clock::time_point sent;
  caller->onReply = [&] {
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
    --outstanding;
  };
  for (int i = 0; i < settings.latencyRounds + 100; ++i) {
    sent = Clock::now();
    outstanding = 1;
    caller->sendMessage(message);
    loop.runUntil([&] { return outstanding == 0; });
  }
  samples.erase(samples.begin(), samples.begin() + 100);  // warm-up
  figures.medianMicros = median(samples);

  figures.roundTripsPerSecond = messageThroughput(loop, *caller, settings.throughputRounds);
  caller.reset();
  return figures;
}

// Message round trips per second with the hub's monitor hook never used, with a monitor
// attached (one whose filter matches nothing, so only the hook's own cost shows), and after
// that monitor left again.
struct MonitorFigures {
  double before = 0, attached = 0, after = 0;
};

MonitorFigures measureMonitorHook(Settings const& settings) {
  Route route("echo");
  fn::uv::Loop& loop = route.loop;
  ipc::ObjectReferenceInitializer init{route.worker.get(), (0u << 16) + 1, nullptr, "Echo"};
  fn::AutoPtr<Caller> caller(new Caller(init));
  MonitorFigures figures;
  figures.before = messageThroughput(loop, *caller, settings.throughputRounds);
  {
    ipc::Worker::ClientDelegate delegate;
    ipc::Worker watcher(delegate, loop, route.worker->pipePath(), "monitor", "", false);
    watcher.connect();
    loop.runUntil([&] { return watcher.connected(); });
    fn::AutoPtr<ipc::HubMonitor> monitor;
    ipc::lookupInstance<ipc::HubMonitor>(watcher).then(
        [&](fn::AutoPtr<ipc::HubMonitor> found) { monitor = found; });
    loop.runUntil([&] { return monitor.get() != nullptr; });
    bool attached = false;
    monitor->attach(std::nullopt, ~uint64_t(0) >> 1).then([&](fn::Value) { attached = true; });
    loop.runUntil([&] { return attached; });
    figures.attached = messageThroughput(loop, *caller, settings.throughputRounds);
    monitor.reset();
    watcher.stop();
  }
  // The hub notices the monitor's departure at once; give it a moment all the same.
  auto until = Clock::now() + std::chrono::milliseconds(200);
  loop.runUntil([&] { return Clock::now() > until; });
  figures.after = messageThroughput(loop, *caller, settings.throughputRounds);
  caller.reset();
  return figures;
}

// ---- the floor: bare Unix sockets and a minimal libuv relay that coalesces its writes ----

int runRelay(fn::String const& path) {
  fn::uv::Loop loop;
  auto server = fn::uv::PipeStream::create(loop);
  server->bind(path).throwOnError();
  std::vector<fn::AutoPtr<fn::uv::PipeStream>> peers;
  server->listen(8, [&](fn::uv::Status) {
    auto peer = fn::uv::PipeStream::create(loop);
    server->accept(*peer);
    peers.push_back(peer);
    if (peers.size() == 2) {
      for (int i = 0; i < 2; ++i) {
        fn::uv::PipeStream* to = peers[1 - i].get();
        peers[i]->readStart([to](char const* bytes, ssize_t n) {
          if (n > 0)
            to->writeWith([&](fn::ByteArray& out) { out.append(bytes, static_cast<size_t>(n)); });
        });
      }
    }
  });
  loop.run();
  return 0;
}

int runBareEcho(fn::String const& path) {
  int fd = connectTo(path);
  char buffer[65536];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0)
      return 0;
    if (write(fd, buffer, static_cast<size_t>(n)) != n)
      return 0;
  }
}

Figures measureFloor(Settings const& settings, size_t frameSize) {
  fn::String path = tempPath("relay");
  unlink(path.c_str());
  pid_t relay = spawnSelf({"--role", "relay", "--path", path});
  waitForFile(path);
  int fd = connectTo(path);
  pid_t echo = spawnSelf({"--role", "bare-echo", "--path", path});

  std::vector<char> frame(frameSize, 'x');
  std::vector<char> buffer(1 << 20);
  Figures figures;
  std::vector<double> samples;
  for (int i = 0; i < settings.latencyRounds + 100; ++i) {
    auto sent = Clock::now();
    if (write(fd, frame.data(), frame.size()) < 0)
      break;
    size_t got = 0;
    while (got < frameSize) {
      ssize_t n = read(fd, buffer.data(), buffer.size());
      if (n <= 0)
        break;
      got += static_cast<size_t>(n);
    }
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - sent).count());
  }
  samples.erase(samples.begin(), samples.begin() + 100);
  figures.medianMicros = median(samples);

  // WINDOW frames in flight; each batch of answers is refilled with one write.
  std::vector<char> batch(frameSize * WINDOW, 'x');
  int issued = WINDOW, done = 0;
  size_t partial = 0;
  auto start = Clock::now();
  if (write(fd, batch.data(), batch.size()) < 0)
    return figures;
  while (done < settings.throughputRounds) {
    ssize_t n = read(fd, buffer.data(), buffer.size());
    if (n <= 0)
      break;
    partial += static_cast<size_t>(n);
    int frames = static_cast<int>(partial / frameSize);
    partial %= frameSize;
    done += frames;
    int more = std::min(frames, settings.throughputRounds - issued);
    if (more > 0) {
      if (write(fd, batch.data(), frameSize * static_cast<size_t>(more)) < 0)
        break;
      issued += more;
    }
  }
  figures.roundTripsPerSecond = done / std::chrono::duration<double>(Clock::now() - start).count();
  close(fd);
  finish(echo);
  finish(relay);
  unlink(path.c_str());
  return figures;
}

// The framing the framework's message occupies on the wire, so the floor moves as many bytes.
size_t frameSizeOfMessage() {
  fn::ByteArray payload;
  fn::mpack::encode(fn::Value::map({{"data", "hello, world"}, {"seq", 1}}), payload);
  fn::Value record = fn::Value::map({{ipc::key::TYPE, ipc::type::MESSAGE},
                                     {ipc::key::OBJECT_ID, 1},
                                     {ipc::key::SOURCE_WORKER_ID, 2},
                                     {ipc::key::TARGET_WORKER_ID, 1},
                                     {ipc::key::PAYLOAD, payload},
                                     {ipc::key::OBJECTS, fn::Value::map()}});
  fn::ByteArray frame;
  return ipc::MessageWriter::encode(record, frame) + 4;
}

void pinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (cpu < 0) {
    for (int i = 0; i < CPU_SETSIZE; ++i)
      CPU_SET(i, &set);
  } else {
    CPU_SET(cpu, &set);
  }
  sched_setaffinity(0, sizeof set, &set);
}

void printMonitorHook(Settings const& settings) {
  MonitorFigures monitor = measureMonitorHook(settings);
  fmt::print(
      "\nmessage rt/s, unpinned: {:.0f} with no monitor ever attached, {:.0f} with a "
      "monitor attached (matching nothing), {:.0f} after it left\n",
      monitor.before, monitor.attached, monitor.after);
}

void printScale(Settings const& settings) {
  ScaleFigures scale = measureScale(settings.idleWorkers, settings.references);
  fmt::print("\nhub memory (resident, from /proc):\n");
  fmt::print("  {} idle workers connected: {:.0f} bytes each\n", scale.workers,
             scale.bytesPerIdleWorker);
  fmt::print("  {} live references held by one worker: {:.1f} bytes each\n", scale.references,
             scale.bytesPerReference);
  fmt::print("  releasing them when their holder dies: {:.3f} s\n", scale.releaseSeconds);
  fmt::print(
      "  a worker that stops reading, sent {} MiB: hub {:.1f} MiB before, {:.1f} MiB "
      "after it was cut off\n",
      scale.sentToSleeper >> 20, scale.residentBeforeSleeper / 1048576.0,
      scale.residentAfterSleeper / 1048576.0);
}

int drive(Settings const& settings, std::string_view only, bool cpu0Only) {
  if (only == "scale") {
    printScale(settings);
    return 0;
  }
  if (only == "monitor") {
    printMonitorHook(settings);
    return 0;
  }
  size_t frameSize = frameSizeOfMessage();
  fmt::print("round trip of a {}-byte framed object message, A -> hub -> B -> hub -> A\n",
             frameSize);
  fmt::print("{:<14} {:>14} {:>14} {:>8} {:>16} {:>16} {:>8}\n", "cpus", "median core",
             "median floor", "ratio", "rt/s core", "rt/s floor", "share");
  for (int cpu : {-1, 0}) {
    if (cpu0Only && cpu < 0)
      continue;
    pinTo(cpu);  // children inherit the affinity
    if (only == "calls" || only == "messages" || only == "floor" || only == "dbus") {
      // For profiling one path at a time.
      Figures one = only == "calls"   ? measureCall(settings)
                    : only == "dbus"  ? measureDbus(settings)
                    : only == "floor" ? measureFloor(settings, frameSize)
                                      : measureFramework(settings);
      fmt::print("{:<14} {:>11.1f} us {:>31.0f}\n", cpu < 0 ? "unpinned" : "cpu 0",
                 one.medianMicros, one.roundTripsPerSecond);
      continue;
    }
    Figures core = measureFramework(settings);
    Figures floor = measureFloor(settings, frameSize);
    Figures call = measureCall(settings);
    Figures dbus = measureDbus(settings);
    auto row = [&](std::string_view label, Figures const& figures) {
      fmt::print("{:<14} {:>11.1f} us {:>11.1f} us {:>7.2f}x {:>16.0f} {:>16.0f} {:>7.0f}%\n",
                 label, figures.medianMicros, floor.medianMicros,
                 figures.medianMicros / floor.medianMicros, figures.roundTripsPerSecond,
                 floor.roundTripsPerSecond,
                 100 * figures.roundTripsPerSecond / floor.roundTripsPerSecond);
    };
    std::string where = cpu < 0 ? "unpinned" : "cpu 0";
    row(where, core);
    row(where + " call", call);
    row(where + " D-Bus", dbus);
    fmt::print("{:<14} calls per second {:.1f}x D-Bus's, call latency {:.2f}x D-Bus's\n", "",
               call.roundTripsPerSecond / dbus.roundTripsPerSecond,
               call.medianMicros / dbus.medianMicros);
    std::fflush(stdout);
  }
  if (!only.empty())
    return 0;
  pinTo(-1);
  printMonitorHook(settings);
  printScale(settings);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  fn::logging::CategoryManager::instance().setThreshold("*", fn::logging::WRN);
  std::vector<std::string_view> args(argv + 1, argv + argc);
  auto option = [&](std::string_view name) -> fn::String {
    for (size_t i = 0; i + 1 < args.size(); ++i) {
      if (args[i] == name)
        return fn::String(args[i + 1]);
    }
    return {};
  };
  fn::String role = option("--role");
  if (role == "hub")
    return runHub(option("--pipe-file"));
  if (role == "echo")
    return runEcho(option("--pipe"));
  if (role == "callee")
    return runCallee(option("--pipe"));
  if (role == "relay")
    return runRelay(option("--path"));
  if (role == "bare-echo")
    return runBareEcho(option("--path"));
  if (role == "dbus-server")
    return runDbusServer(option("--address"));
  Settings settings;
  if (std::find(args.begin(), args.end(), "--quick") != args.end())
    settings = Settings{500, 20000, 200, 100000};
  if (std::find(args.begin(), args.end(), "--profile") != args.end())
    settings = Settings{1, 1000000, 1000, 1000000};
  bool cpu0Only = std::find(args.begin(), args.end(), "--cpu0") != args.end();
  return drive(settings, option("--only"), cpu0Only);
}

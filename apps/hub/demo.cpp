#include "hub/demo.h"

#include <cstdio>

#include "core/ipc/dispatcher.h"
#include "core/ipc/object.h"
#include "core/ipc/registry.h"
#include "core/ipc/worker.h"
#include "foundation/uv/process.h"

namespace hub {
namespace {

void say(std::string_view who, std::string_view text) {
  fmt::print("[{:<5}] {}\n", who, text);
  std::fflush(stdout);
}

// Bob's reference to alice's greeter.
class GreeterReference : public ipc::ObjectReference {
public:
  explicit GreeterReference(ipc::ObjectReferenceInitializer& init) : ipc::ObjectReference(init) {}
  fn::String className() const override { return "Greeter"; }
  std::function<void(fn::Value const&)> onReply;

protected:
  void onMessage(fn::Value const& message) override {
    if (onReply)
      onReply(message);
  }
};

// Alice's object: answers whoever writes to it.
class Greeter : public ipc::ObjectInstance {
public:
  explicit Greeter(ipc::Worker& worker) : ipc::ObjectInstance(worker) {}

protected:
  fn::AutoPtr<ipc::ObjectReference> createReference(
      ipc::ObjectReferenceInitializer& init) override {
    return fn::AutoPtr<ipc::ObjectReference>(new GreeterReference(init));
  }

  void onMessage(uint16_t source, fn::Value const& message) override {
    say("alice", fmt::format("greeter received \"{}\" from worker {}",
                             message.at("text").asString(), source));
    sendMessage(source, fn::Value::map({{"text", "Nice to meet you, bob."}}));
  }
};

class DemoWorker : public ipc::Worker::Delegate {
public:
  DemoWorker(fn::uv::Loop& loop, fn::String name, fn::String const& pipePath)
      : _loop(loop),
        _name(std::move(name)),
        _worker(*this, loop, pipePath, _name, "demo", false) {
    _worker.registerObjectReferenceClass<GreeterReference>();
    _disconnected = _worker.onDisconnected().connect([this](fn::uv::Status const&) {
      say(_name, "the hub went away");
      _loop.stop();
    });
  }

  void run() {
    _worker.connect();
    _loop.run();
  }

  void workerDidConnect(ipc::Worker& worker) override {
    say(_name, fmt::format("connected, the hub assigned worker id {}", worker.workerId()));
    if (_name == "alice") {
      fn::AutoPtr<Greeter> greeter(new Greeter(worker));
      say(_name,
          fmt::format("registers a greeter (object {}) under its class name", greeter->objectId()));
      // Registered, the greeter lives as long as the registry or anybody else holds it.
      worker.registry()->registerObject(greeter).then(
          [this] { say(_name, "the registry has the greeter"); });
      return;
    }
    say(_name, "asks the registry for a Greeter, waiting until there is one");
    worker.registry()
        ->getInstance("Greeter")
        .then([this](fn::Value found) { greet(found); })
        .fail([this](std::exception_ptr error) {
          say(_name, "no greeter: " + fn::describeException(error));
          _loop.stop();
        });
  }

  void greet(fn::Value const& found) {
    _greeter = fn::AutoPtr<GreeterReference>(found.objectAs<GreeterReference>());
    if (!_greeter) {
      say(_name, "the registry answered with something else");
      _loop.stop();
      return;
    }
    say(_name, fmt::format("got a reference to object {} of worker {}", _greeter->objectId(),
                           ipc::ownerOf(_greeter->objectId())));
    _greeter->onReply = [this](fn::Value const& reply) {
      say(_name, fmt::format("greeter answered \"{}\"", reply.at("text").asString()));
      // Dropping the reference hands its use back to the hub.
      _loop.post([this] {
        _greeter.reset();
        _loop.post([this] {
          _worker.stop();
          _loop.stop();
        });
      });
    };
    _greeter->sendMessage(fn::Value::map({{"text", "Hello alice, this is bob."}}));
  }

  bool wantsIdleTermination(ipc::Worker&) override { return false; }
  bool workerCanTerminate(ipc::Worker&) override { return false; }
  void workerRequestsTermination(ipc::Worker&) override {}
  void aboutToQuit(ipc::Worker&) override { _loop.stop(); }

private:
  fn::uv::Loop& _loop;
  fn::String _name;
  ipc::Worker _worker;
  fn::Handle _disconnected;
  fn::AutoPtr<GreeterReference> _greeter;
};

}  // namespace

int runDemoWorker(fn::uv::Loop& loop, fn::String const& name, fn::String const& pipePath) {
  DemoWorker worker(loop, name, pipePath);
  worker.run();
  say(name, "done");
  return 0;
}

int runDemo(fn::uv::Loop& loop, fn::Duration timeout) {
  ipc::Dispatcher dispatcher(loop, timeout);
  dispatcher.bind();
  dispatcher.start();
  say("hub", fmt::format("listening on {}", dispatcher.pipePath()));

  int finished = 0;
  bool failed = false;
  auto connected = dispatcher.onWorkerConnected().connect([](auto const& info) {
    say("hub",
        fmt::format("{} said HELLO, assigned worker id {}", info.displayName, info.workerId));
  });
  auto disconnected = dispatcher.onWorkerDisconnected().connect([&](auto const& info) {
    say("hub", fmt::format("{} (worker {}) disconnected; the others were told", info.displayName,
                           info.workerId));
  });

  std::vector<fn::AutoPtr<fn::uv::Process>> children;
  auto start = [&](fn::String name) {
    fn::uv::Process::Options options;
    options.file = fn::uv::executablePath();
    options.arguments = {"--demo-worker", name, "--pipe", dispatcher.pipePath()};
    children.push_back(fn::uv::Process::spawn(loop, options, [&, name](int64_t status, int signal) {
      say("hub", fmt::format("{} exited with status {}", name, status));
      failed = failed || status != 0 || signal != 0;
      if (++finished == 2) {
        loop.stop();
      } else if (name == "bob") {
        say("hub", "tells everybody it is about to quit");
        dispatcher.stop(fn::Duration::seconds(5), [] {});
      }
    }));
  };
  // Bob starts once alice is connected; his lookup waits until her greeter is registered.
  auto aliceArrived = dispatcher.onWorkerConnected().connect([&](auto const& info) {
    if (info.displayName == "alice")
      start("bob");
  });
  start("alice");
  auto watchdog = loop.schedule(fn::Duration::seconds(20), [&] {
    say("hub", "the demonstration did not finish in time");
    failed = true;
    for (auto& child : children)
      child->kill(SIGKILL);
  });
  loop.run();
  say("hub", failed ? "demonstration failed" : "demonstration finished");
  return failed ? 1 : 0;
}

}  // namespace hub

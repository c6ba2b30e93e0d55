#include "hub/single_instance.h"

#include <unistd.h>

#include <cstdio>
#include <optional>

#include "foundation/logging/category.h"
#include "foundation/run_loop.h"

namespace hub {
namespace {

fn::logging::Category logHub("hub");
constexpr fn::Duration RETRY_INTERVAL = fn::Duration::milliseconds(10);

}  // namespace

fn::Value commandLineValue(int argc, char** argv) {
  fn::Value arguments = fn::Value::array({});
  for (int i = 1; i < argc; ++i)
    arguments.append(fn::String(argv[i]));
  fn::String directory;
  if (char* cwd = ::getcwd(nullptr, 0)) {
    directory = cwd;
    ::free(cwd);
  }
  return fn::Value::map({{"arguments", arguments}, {"workingDirectory", directory}});
}

int handOffToRunningHub(fn::uv::Loop& loop, int argc, char** argv) {
  std::optional<bool> delivered;
  core::CommandIPC::send(commandLineValue(argc, argv), [&](bool ok) { delivered = ok; });
  loop.runUntil([&] { return delivered.has_value(); });
  if (!delivered.value_or(false)) {
    std::fprintf(stderr,
                 "lumaren-hub: another hub of this user holds the lock but does not take its "
                 "command line\n");
    return 1;
  }
  std::printf(
      "lumaren-hub: a hub of this user is running already; handed the command line to "
      "it\n");
  std::fflush(stdout);
  return 0;
}

CommandRelay::CommandRelay(ipc::Worker& worker)
    : _worker(worker),
      _pipe(fn::makeAuto<core::CommandIPC>()) {
  // Bound at once, so that a hub started right after this one finds the pipe; what arrives
  // before the bus is known waits for it.
  _received = _pipe->onCommand().connect([this](fn::Value command) { relay(command); });
  _pipe->bind();
  lookUpBus();
}

void CommandRelay::lookUpBus() {
  // The hub's own worker connects through the pipe like any other, a few iterations after
  // the dispatcher listens.
  if (!_worker.connected()) {
    _retry = fn::RunLoop::currentLoop()->schedule(RETRY_INTERVAL, [this] { lookUpBus(); });
    return;
  }
  _lookup = ipc::MessageBus::lookup(_worker);
  _lookup.then(
      [this](fn::AutoPtr<ipc::MessageBus> bus) {
        _bus = std::move(bus);
        for (auto& command : std::exchange(_waiting, {}))
          relay(command);
      },
      [](std::exception_ptr error) {
        fn::logException(error, "Commands cannot reach the message bus");
      });
}

CommandRelay::~CommandRelay() {
  _lookup.cancel();
  _pipe->stop();
}

void CommandRelay::relay(fn::Value const& command) {
  if (!_bus) {
    _waiting.push_back(command);
    return;
  }
  logHub.log(fn::logging::INF, "Command received: {}", command.toString());
  _bus->post(COMMAND_NAMESPACE, command);
}

}  // namespace hub

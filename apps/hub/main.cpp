// lumaren-hub: the hub process. Runs the dispatcher and, with a configuration, supervises the
// modules it names, on the default loop until SIGINT or SIGTERM.
//
//   lumaren-hub [--config FILE] [--product NAME] [--pipe-file PATH] [--timeout SECONDS] [--demo]
//
//   --config FILE      the product, the modules to run and how to watch them (see
//                      hub/config.h and the README); without it the hub runs no modules
//   --product NAME     the product the hub and its modules belong to (default Lumaren, or the
//                      configuration's); every process the hub starts inherits it
//   --pipe-file PATH   also write the pipe path into PATH once the hub listens; it is always
//                      written to the per-user default file that lumaren-ctl reads
//   --timeout SECONDS  liveness time-out (default 30, or the configuration's): workers are
//                      pinged every third of it and reported not responding after a whole
//                      time-out without an answer
//   --demo             run the self-demonstration with the example modules and exit
//
// One hub runs per user (hub/single_instance.h): a second start hands its command line to the
// running hub and exits 0. The demonstration runs its own private system whatever else runs.

#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>

#include "core/app_info.h"
#include "core/ipc/dispatcher.h"
#include "core/ipc/message_bus.h"
#include "core/ipc/module.h"
#include "core/ipc/module_manager.h"
#include "core/ipc/pipe_path.h"
#include "core/logging_profile_sink.h"
#include "core/process_lock.h"
#include "foundation/file.h"
#include "foundation/logging/category.h"
#include "hub/config.h"
#include "hub/demo.h"
#include "hub/signals.h"
#include "hub/single_instance.h"

namespace {

constexpr fn::Duration STOP_GRACE = fn::Duration::milliseconds(500);

fn::logging::Category logHub("hub");

void usage() {
  std::fputs(
      "usage: lumaren-hub [--config FILE] [--product NAME] [--pipe-file PATH] [--timeout SECONDS] "
      "[--demo]\n",
      stderr);
}

/// Makes the bus of the hub's own worker the process's bus, once that worker has connected,
/// so that the hub's own logging profiles follow verbose logging like every other process.
void adoptMessageBus(fn::uv::Loop& loop, ipc::Dispatcher& dispatcher) {
  bool gaveUp = false;
  fn::Handle limit = loop.schedule(fn::Duration::seconds(10), [&] { gaveUp = true; });
  loop.runUntil([&] { return gaveUp || dispatcher.messageBus(); });
  if (dispatcher.messageBus())
    ipc::MessageBus::setProcessBus(
        dispatcher.messageBus()->localReference().cast<ipc::MessageBus>());
  else
    logHub.log(fn::logging::ERR, "The hub's own worker did not connect; no message bus here");
}

int runHub(fn::uv::Loop& loop, hub::HubConfig const& config, fn::String const& pipeFile) {
  ipc::Dispatcher dispatcher(loop, config.timeout);
  dispatcher.bind();
  dispatcher.start();
  std::vector<fn::String> pipeFiles{ipc::defaultPipeFile()};
  if (!pipeFile.empty())
    pipeFiles.push_back(pipeFile);
  for (auto const& file : pipeFiles)
    fn::File(file).writeAll(fn::ByteArray(dispatcher.pipePath() + "\n"), 0600);
  logHub.log(fn::logging::INF, "Hub listening on {}", dispatcher.pipePath());
  adoptMessageBus(loop, dispatcher);
  hub::CommandRelay commands(dispatcher.worker());

  ipc::ModuleManager manager(dispatcher, hub::definitionsOf(config));
  auto fatal = manager.onFatalError().connect(
      [](fn::String const& text) { logHub.log(fn::logging::ERR, "{}", text); });
  auto allConnected = manager.onAllModulesConnected().connect(
      [] { logHub.log(fn::logging::INF, "All modules connected"); });
  manager.start();

  bool stopping = false;
  hub::StopSignals signals(loop, [&] {
    if (std::exchange(stopping, true))
      return;
    logHub.log(fn::logging::INF, "Stopping");
    dispatcher.stop(STOP_GRACE, [] {});
  });
  loop.run();
  // Modules that did not quit in the grace period are killed, in-process ones end with the hub.
  manager.stop();
  ipc::Module::destroyInProcessModules();
  ipc::MessageBus::setProcessBus(nullptr);
  // A hub started after this one may have written its own path there meanwhile.
  fn::ByteArray ours(dispatcher.pipePath() + "\n");
  for (auto const& file : pipeFiles) {
    fn::File pipe(file);
    if (pipe.exists() && pipe.readAll() == ours)
      pipe.remove();
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::optional<fn::Duration> timeout;
  std::optional<core::AppInfo::App> product;
  fn::String pipeFile, configFile;
  bool demo = false;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg(argv[i]);
    auto value = [&]() -> fn::String {
      if (i + 1 >= argc) {
        usage();
        std::exit(2);
      }
      return argv[++i];
    };
    if (arg == "--pipe-file") {
      pipeFile = value();
    } else if (arg == "--config") {
      configFile = value();
    } else if (arg == "--product") {
      product = core::AppInfo::appNamed(value());
      if (!product) {
        usage();
        return 2;
      }
    } else if (arg == "--timeout") {
      auto seconds = value().toInt();
      if (!seconds || *seconds <= 0) {
        usage();
        return 2;
      }
      timeout = fn::Duration::seconds(*seconds);
    } else if (arg == "--demo") {
      demo = true;
    } else {
      usage();
      return 2;
    }
  }
  try {
    fn::uv::Loop& loop = fn::uv::Loop::defaultLoop();
    // Before the configuration is read: a second start hands over whatever it was given.
    std::optional<core::ProcessLock> lock;
    if (!demo) {
      lock.emplace(hub::LOCK_NAME);
      if (!lock->exclusive())
        return hub::handOffToRunningHub(loop, argc, argv);
    }
    hub::HubConfig config;
    if (!configFile.empty())
      config = hub::loadConfig(configFile);
    if (timeout)
      config.timeout = *timeout;
    if (product)
      config.product = *product;
    // The hub is the first process of the application: it chooses the product before anything
    // uses a file, and every process it starts inherits the choice.
    core::AppInfo::initialize(config.product);
    core::initLoggingProfiles("hub");
    if (demo)
      return hub::runDemo(loop, config.timeout);
    return runHub(loop, config, pipeFile);
  } catch (fn::Exception const& e) {
    std::fprintf(stderr, "lumaren-hub: %s\n", e.toString().c_str());
    return 1;
  }
}

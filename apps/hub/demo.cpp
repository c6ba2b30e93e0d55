#include "hub/demo.h"

#include <uv.h>

#include <csignal>
#include <cstdio>

#include "core/inspector_registry.h"
#include "core/ipc/dispatcher.h"
#include "core/ipc/module.h"
#include "core/ipc/module_manager.h"
#include "core/ipc/registry.h"
#include "greeter_reference.h"

namespace hub {
namespace {

constexpr fn::Duration DEADLINE = fn::Duration::seconds(30);
constexpr fn::Duration STOP_GRACE = fn::Duration::milliseconds(300);

void say(std::string_view text) {
  fmt::print("[hub] {}\n", text);
  std::fflush(stdout);
}

void show(core::InspectionResult const& result) {
  for (size_t i = 0; i < result.items.size(); ++i) {
    auto const& item = result.items[i];
    say(item.hasAction() ? fmt::format("    {}. {}  -> {}", i + 1, item.text, item.action)
                         : fmt::format("    {}. {}", i + 1, item.text));
  }
}

// The demonstration's own client: a module inside the hub that uses the example modules the
// way any other process would, through the registry, calls, events and the inspectors.
class DemoConsole : public ipc::Module {
public:
  DemoConsole(ipc::ModuleInitData const& init, std::function<void()> ready)
      : Module(init),
        _ready(std::move(ready)) {}

  /// Finds the greeter, greets `name` and waits for the event that follows.
  fn::Promise<void> greet(fn::String const& name) {
    auto heard = std::make_shared<fn::Promise<void>>();
    return ipc::lookupInstance<examples::GreeterReference>(worker())
        .then([this, name, heard](fn::AutoPtr<examples::GreeterReference> const& found) {
          _greeter = found;
          say(fmt::format("found examples::Greeter in the registry: object {:#x}",
                          _greeter->objectId()));
          _greeter->onGreeted = [heard](fn::String const& who, int64_t times) {
            say(fmt::format("event \"greeted\": {} ({} time(s))", who, times));
            heard->resolve();
          };
          return _greeter->greet(name);
        })
        .then([heard](fn::Value const& answer) {
          say(fmt::format("greet answered \"{}\"", answer.asString()));
          return *heard;
        });
  }

  /// Lists the inspectors, opens the greeter's and follows its actions down two levels.
  fn::Promise<void> browseInspector() {
    auto state = std::make_shared<fn::AutoPtr<core::InspectorReference>>();
    return core::InspectorRegistry::lookup(worker())
        .then([](fn::AutoPtr<core::InspectorRegistry> const& inspectors) {
          return inspectors->allInspectors().then(
              [inspectors](std::map<fn::String, fn::String> const& all) {
                fn::String key;
                for (auto const& [k, name] : all) {
                  say(fmt::format("inspector \"{}\" (key {})", name, k));
                  if (name == "Greeter")
                    key = k;
                }
                if (key.empty())
                  throw fn::IllegalStateException("the greeter published no inspector");
                return inspectors->getInspector(key);
              });
        })
        .then([state](fn::AutoPtr<core::InspectorReference> const& inspector) {
          *state = inspector;
          say("inspecting \"Greeter\":");
          return inspector->inspect(fn::Value(), fn::Value());
        })
        .then([state](core::InspectionResult const& top) {
          show(top);
          say("following \"names\":");
          return (*state)->inspect("names", fn::Value());
        })
        .then([state](core::InspectionResult const& names) {
          show(names);
          if (names.items.empty())
            throw fn::IllegalStateException("the greeter lists no names");
          say(fmt::format("following {}:", names.items.front().action));
          return (*state)->inspect(names.items.front().action, "names");
        })
        .then([](core::InspectionResult const& one) { show(one); });
  }

private:
  void onConnected() override { _ready(); }

  std::function<void()> _ready;
  fn::AutoPtr<examples::GreeterReference> _greeter;
};

}  // namespace

int runDemo(fn::uv::Loop& loop, fn::Duration timeout) {
  ipc::Dispatcher dispatcher(loop, timeout);
  dispatcher.bind();
  dispatcher.start();
  say(fmt::format("listening on {}", dispatcher.pipePath()));

  int exitCode = 0;
  bool stopping = false;
  auto finish = [&](int code) {
    if (stopping)
      return;
    stopping = true;
    exitCode = code;
    say(code == 0 ? "demonstration finished; telling everybody the hub is about to quit"
                  : "demonstration failed");
    dispatcher.stop(STOP_GRACE, [] {});
  };
  auto fail = [&](std::exception_ptr error) {
    say(fmt::format("error: {}", fn::describeException(error)));
    finish(1);
  };

  // The hub knows the greeter's reference class too, so its registry holds the service as one.
  dispatcher.worker().registerObjectReferenceClass<examples::GreeterReference>();
  auto connected = dispatcher.onWorkerConnected().connect([](auto const& info) {
    say(fmt::format("{} connected as worker {}", info.displayName, info.workerId));
  });

  std::vector<ipc::ModuleDefinition*> definitions{
      ipc::ModuleDefinition::create("announcer", ipc::MODULE_LOADER_NAME, true, true, false),
      ipc::ModuleDefinition::create("greeter", ipc::MODULE_LOADER_NAME, false, false, false)};
  ipc::ModuleDefinition* greeter = definitions[1];
  ipc::ModuleManager manager(dispatcher, std::move(definitions));
  std::unique_ptr<DemoConsole> console;
  auto fatal = manager.onFatalError().connect([&](fn::String const& text) {
    say(fmt::format("fatal: {}", text));
    finish(1);
  });

  // First round: call, event, inspector, then kill the greeter. Second round, once the manager
  // restarted it: the new process greets in the word of the sticky message posted long before
  // it started.
  int round = 0;
  auto allConnected = manager.onAllModulesConnected().connect([&] {
    if (++round == 1) {
      say("all modules connected");
      console->greet("Ada")
          .then([&] { return console->browseInspector(); })
          .then([&] {
            // Without a process there is nothing to kill; a pid of 0 would be our own group.
            auto process = greeter->processInfo();
            if (!process || process->pid <= 0) {
              say("the greeter module has no process to kill");
              finish(1);
              return;
            }
            say(fmt::format("killing the greeter module (pid {}) with SIGKILL", process->pid));
            uv_kill(process->pid, SIGKILL);
          })
          .fail(fail);
    } else if (round == 2) {
      say("the greeter module is back");
      console->greet("Grace").then([&] { finish(0); }).fail(fail);
    }
  });

  // The modules start once the console is connected and can use the registry.
  console = std::make_unique<DemoConsole>(
      ipc::ModuleInitData(dispatcher.pipePath(), "demo console", "demo-console", "", false),
      [&] { manager.start(); });
  auto deadline = loop.schedule(DEADLINE, [&] {
    say("the demonstration did not finish in time");
    finish(1);
  });
  loop.run();
  manager.stop();
  console.reset();
  ipc::Module::destroyInProcessModules();
  return exitCode;
}

}  // namespace hub

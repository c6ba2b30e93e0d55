#pragma once

// ipc::ModuleManager: the hub's supervisor of its modules.
//
// Given the module definitions, it launches every module, recognises each one's connection by
// the worker tag of its launch, and keeps them alive: a module that does not connect in time
// gets one more attempt over the manager's whole life, a module that dies before connecting
// gets one restart, a connected module that exits is restarted every time, and a module that
// stops responding is killed and restarted unless it runs in the hub's process. What cannot be
// kept alive is reported through onFatalError; the manager never throws out of its callbacks.
//
// Loop-bound: everything runs on the dispatcher's loop thread.

#include <cstdint>
#include <memory>
#include <vector>

#include "core/export.h"
#include "core/ipc/dispatcher.h"
#include "core/ipc/module_definition.h"
#include "foundation/duration.h"
#include "foundation/handle.h"
#include "foundation/signal.h"

namespace ipc {

/// How long a launched module has to connect to the hub.
inline constexpr fn::Duration MODULE_CONNECTION_TIMEOUT = fn::Duration::seconds(30);
/// How long the manager waits before launching a module again.
inline constexpr fn::Duration MODULE_RESTART_DELAY = fn::Duration::seconds(1);

class CORE_EXPORT ModuleManager {
public:
  struct ModuleState {
    ModuleDefinition* definition = nullptr;
    fn::String workerTag;
    fn::Handle connectionTimer;
    uint32_t connectionTimeoutCount = 0;
    uint32_t launchAttemptCount = 0;
    bool connected = false;
  };

  struct Options {
    fn::Duration connectionTimeout = MODULE_CONNECTION_TIMEOUT;
    fn::Duration restartDelay = MODULE_RESTART_DELAY;
  };

  /// Takes ownership of the definitions.
  ModuleManager(Dispatcher& dispatcher, std::vector<ModuleDefinition*>&& definitions);
  ModuleManager(Dispatcher& dispatcher,
                std::vector<ModuleDefinition*>&& definitions,
                Options options);
  ~ModuleManager();
  ModuleManager(ModuleManager const&) = delete;
  ModuleManager& operator=(ModuleManager const&) = delete;

  void start();
  /// Ends supervision: no more launches or restarts, and module processes still running are
  /// killed.
  void stop();

  bool launchModule(ModuleState& state);
  void onWorkerConnected(Dispatcher::WorkerInfo const& info);
  void onWorkerNotResponding(Dispatcher::WorkerInfo const& info);
  void moduleConnectionDidTimeout(ModuleState& state);
  void moduleDidExit(ModuleState& state, long long status, int signal);
  void restart(ModuleState& state);
  ModuleState* stateForWorkerTag(fn::String const& tag);

  std::vector<std::unique_ptr<ModuleState>> const& states() const { return _states; }

  fn::Signal<>& onAllModulesConnected() { return _onAllModulesConnected; }
  fn::Signal<fn::String>& onFatalError() { return _onFatalError; }
  fn::Signal<fn::String>& onModuleNotResponding() { return _onModuleNotResponding; }

private:
  Dispatcher& _dispatcher;
  Options _options;
  std::vector<std::unique_ptr<ModuleDefinition>> _definitions;
  std::vector<std::unique_ptr<ModuleState>> _states;
  std::vector<fn::Handle> _connections;
  bool _stopped = false;
  // Expires when the manager stops; timers and posted launches check it.
  std::shared_ptr<bool> _alive = std::make_shared<bool>(true);
  fn::Signal<> _onAllModulesConnected;
  fn::Signal<fn::String> _onFatalError;
  fn::Signal<fn::String> _onModuleNotResponding;
};

}  // namespace ipc

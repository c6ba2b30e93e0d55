#include "core/ipc/module_manager.h"

#include <algorithm>

#include "foundation/assert.h"
#include "foundation/exception.h"
#include "foundation/logging/category.h"
#include "foundation/uuid.h"

namespace ipc {
namespace {

fn::logging::Category logManager("ipc.moduleManager");

fn::String describe(Dispatcher::WorkerInfo const& info) {
  return fmt::format("{} (worker {}, tag {})", info.displayName, info.workerId, info.tag);
}

}  // namespace

ModuleManager::ModuleManager(Dispatcher& dispatcher, std::vector<ModuleDefinition*>&& definitions)
    : ModuleManager(dispatcher, std::move(definitions), Options()) {}

ModuleManager::ModuleManager(Dispatcher& dispatcher,
                             std::vector<ModuleDefinition*>&& definitions,
                             Options options)
    : _dispatcher(dispatcher),
      _options(options) {
  for (ModuleDefinition* definition : definitions) {
    _definitions.emplace_back(definition);
    auto state = std::make_unique<ModuleState>();
    state->definition = definition;
    ModuleState* raw = state.get();
    _connections.push_back(definition->onExit().connect(
        [this, raw](long long status, int signal) { moduleDidExit(*raw, status, signal); }));
    _states.push_back(std::move(state));
  }
  definitions.clear();
  _connections.push_back(dispatcher.onWorkerConnected().connect(
      [this](Dispatcher::WorkerInfo const& info) { onWorkerConnected(info); }));
  _connections.push_back(dispatcher.onWorkerNotResponding().connect(
      [this](Dispatcher::WorkerInfo const& info) { onWorkerNotResponding(info); }));
}

ModuleManager::~ModuleManager() {
  stop();
}

void ModuleManager::start() {
  FN_ASSERT_LOOP_THREAD();
  auto first = std::ranges::find_if(
      _states, [](auto const& state) { return state->definition->launchFirst(); });
  ModuleState* launchedFirst = first == _states.end() ? nullptr : first->get();
  // The others start from the loop, after the module that others may depend on had its go.
  std::weak_ptr<bool> alive = _alive;
  _dispatcher.loop().post([this, alive, launchedFirst] {
    if (alive.expired() || _stopped)
      return;
    for (auto& state : _states) {
      if (state.get() == launchedFirst)
        continue;
      if (!launchModule(*state)) {
        logManager.log(fn::logging::WRN, "Aborting launch");
        return;
      }
    }
  });
  if (launchedFirst)
    launchModule(*launchedFirst);
}

void ModuleManager::stop() {
  if (_stopped)
    return;
  _stopped = true;
  _alive.reset();
  _connections.clear();
  for (auto& state : _states) {
    state->connectionTimer.invalidate();
    if (state->definition->canBeKilled())
      state->definition->kill(true);
  }
}

bool ModuleManager::launchModule(ModuleState& state) {
  FN_ASSERT_LOOP_THREAD();
  if (_stopped)
    return false;
  fn::String name = state.definition->name();
  try {
    state.workerTag = fn::UUIDGenerator::defaultGenerator().createOne().toString();
    state.connected = false;
    ++state.launchAttemptCount;
    logManager.log(fn::logging::INF, "Launching module {} ({}) (attempt {})", name, state.workerTag,
                   state.launchAttemptCount);
    state.definition->launch(_dispatcher, state.workerTag);
    state.connectionTimer = _dispatcher.loop().schedule(
        _options.connectionTimeout, [this, &state] { moduleConnectionDidTimeout(state); });
    return true;
  } catch (...) {
    fn::String message = fmt::format("Failed to start module {}:\n{}", name,
                                     fn::describeException(std::current_exception()));
    logManager.log(fn::logging::WRN, "{}", message);
    _onFatalError.emit(message);
    return false;
  }
}

void ModuleManager::onWorkerConnected(Dispatcher::WorkerInfo const& info) {
  ModuleState* state = stateForWorkerTag(info.tag);
  if (!state) {
    logManager.log(fn::logging::DBG, "Received Connected notification for unmanaged module {}",
                   describe(info));
    return;
  }
  logManager.log(fn::logging::INF, "Module {} has connected", state->definition->name());
  state->connectionTimer.invalidate();
  state->connected = true;
  if (std::ranges::all_of(_states, [](auto const& s) { return s->connected; }))
    _onAllModulesConnected.emit();
}

void ModuleManager::onWorkerNotResponding(Dispatcher::WorkerInfo const& info) {
  ModuleState* state = stateForWorkerTag(info.tag);
  if (!state) {
    logManager.log(fn::logging::WRN,
                   "Received Not Responding notification for unmanaged workerId {}", info.workerId);
    return;
  }
  fn::String name = state->definition->name();
  _onModuleNotResponding.emit(name);
  if (state->definition->canBeKilled()) {
    logManager.log(fn::logging::WRN, "Module {} stopped responding and will be terminated", name);
    state->connected = false;
    state->definition->kill(true);
    restart(*state);
  } else {
    logManager.log(fn::logging::WRN,
                   "Module {} stopped responding but can not be terminated because it is "
                   "in-process",
                   name);
  }
}

void ModuleManager::moduleConnectionDidTimeout(ModuleState& state) {
  fn::String name = state.definition->name();
  if (++state.connectionTimeoutCount == 1) {
    logManager.log(fn::logging::WRN, "Module {} timed out at launch, will attempt to restart",
                   name);
    state.definition->kill(true);
    restart(state);
  } else {
    logManager.log(fn::logging::ERR, "Module {} timed out at launch, giving up", name);
    state.definition->kill(true);
    _onFatalError.emit(fmt::format("Module {} failed to connect", name));
  }
}

void ModuleManager::moduleDidExit(ModuleState& state, long long status, int signal) {
  if (_stopped)
    return;
  bool beforeConnection = state.connectionTimer.valid();
  state.connectionTimer.invalidate();
  state.connected = false;
  fn::String name = state.definition->name();
  if (beforeConnection && state.launchAttemptCount > 1) {
    fn::String message =
        fmt::format("Module {} did exit before connection was established (status: {}, signal {})",
                    name, status, signal);
    logManager.log(fn::logging::ERR, "{}", message);
    _onFatalError.emit(message);
    return;
  }
  logManager.log(fn::logging::WRN, "Module {} did exit (status: {}, signal {})", name, status,
                 signal);
  restart(state);
}

void ModuleManager::restart(ModuleState& state) {
  // The timer runs on its own; the token keeps a late one from touching a manager that is gone.
  std::weak_ptr<bool> alive = _alive;
  _dispatcher.loop()
      .schedule(_options.restartDelay,
                [this, alive, &state] {
                  if (!alive.expired())
                    launchModule(state);
                })
      .detach();
}

ModuleManager::ModuleState* ModuleManager::stateForWorkerTag(fn::String const& tag) {
  if (tag.empty())
    return nullptr;
  for (auto& state : _states)
    if (state->workerTag == tag)
      return state.get();
  return nullptr;
}

}  // namespace ipc

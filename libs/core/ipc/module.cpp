#include "core/ipc/module.h"

#include <algorithm>

#include "core/ipc/message_bus.h"
#include "core/ipc/module_entry.h"
#include "core/ipc/registry.h"
#include "foundation/logging/category.h"
#include "foundation/uv/loop.h"

namespace ipc {
namespace {

fn::logging::Category logModule("ipc.module");

// Never destroyed: modules left here at exit must not be unwound after their loop.
std::vector<std::unique_ptr<Module>>& inProcessModules() {
  static auto* modules = new std::vector<std::unique_ptr<Module>>();
  return *modules;
}

}  // namespace

std::vector<Module::BusWaiter> Module::_messageBusInitializedCallbacks;
Module* Module::_pendingLookup = nullptr;

ModuleInitData::ModuleInitData(fn::String const& pipePath,
                               fn::String const& displayName,
                               fn::String const& workerTag,
                               fn::String const& userData,
                               bool separateProcess)
    : _pipePath(pipePath),
      _displayName(displayName),
      _workerTag(workerTag),
      _userData(userData),
      _separateProcess(separateProcess) {}

Module::Module(ModuleInitData const& init) : Module(init, Worker::Options()) {}

Module::Module(ModuleInitData const& init, Worker::Options options) : _init(init) {
  // In a module process this makes the default loop the thread's loop.
  fn::uv::Loop& loop = fn::uv::Loop::defaultLoop();
  FN_ASSERT_LOOP_THREAD();
  // Only a module with a process of its own may end that process when idle.
  Worker::Delegate& delegate = *this;
  _worker = std::make_unique<Worker>(delegate, loop, init.pipePath(), init.displayName(),
                                     init.workerTag(), init.separateProcess(), options);
  _disconnected =
      _worker->onDisconnected().connect([this](fn::uv::Status const& status) { hubLost(status); });
  _worker->connect();
}

Module::~Module() {
  FN_ASSERT_LOOP_THREAD();
  _lifetime.reset();
  _disconnected.invalidate();
  std::erase_if(_messageBusInitializedCallbacks,
                [](BusWaiter const& waiter) { return waiter.module.expired(); });
  if (_pendingLookup == this) {
    // Another waiting module takes the lookup over, from a clean stack.
    _pendingLookup = nullptr;
    if (!_messageBusInitializedCallbacks.empty())
      fn::uv::Loop::defaultLoop().post([] { resumeMessageBusLookup(); });
  }
  if (auto const& bus = MessageBus::processBus(); bus && bus->worker() == _worker.get())
    MessageBus::setProcessBus(nullptr);
  // Nobody can use our instances once the worker is gone: give up the uses the hub counted,
  // so that the instances are freed rather than held by a worker that no longer exists.
  _worker->objects().dropRemoteUses();
  _worker.reset();
}

void Module::run() {
  fn::uv::Loop::defaultLoop().run();
}

void Module::onConnected() {}

bool Module::wantsIdleTermination() {
  return false;
}

bool Module::canTerminate() {
  return false;
}

void Module::terminate() {
  fn::uv::Loop::defaultLoop().stop();
}

void Module::onAboutToQuit() {}

void Module::workerDidConnect(Worker&) {
  if (MessageBus::processBus()) {
    becomeReady();
    return;
  }
  _messageBusInitializedCallbacks.push_back({_lifetime, [this] { becomeReady(); }});
  // The first module of the process to connect looks the bus up; later ones only wait. After
  // a failed lookup nobody is looking, and the next module to connect tries again.
  if (!_pendingLookup)
    lookUpMessageBus();
}

bool Module::wantsIdleTermination(Worker&) {
  return wantsIdleTermination();
}

bool Module::workerCanTerminate(Worker&) {
  return _ready && canTerminate();
}

void Module::workerRequestsTermination(Worker&) {
  terminate();
}

void Module::aboutToQuit(Worker&) {
  onAboutToQuit();
}

void Module::becomeReady() {
  _ready = true;
  onConnected();
}

void Module::lookUpMessageBus() {
  _pendingLookup = this;
  std::weak_ptr<Module*> alive = _lifetime;
  MessageBus::lookup(*_worker, MESSAGE_BUS_LOOKUP_TIMEOUT)
      .then(
          [alive](fn::AutoPtr<MessageBus> bus) {
            // A module destroyed meanwhile has handed the lookup on already.
            if (alive.expired())
              return;
            _pendingLookup = nullptr;
            messageBusFound(std::move(bus));
          },
          [alive](std::exception_ptr error) {
            if (auto module = alive.lock()) {
              _pendingLookup = nullptr;
              (*module)->messageBusLookupFailed(error);
            }
          });
}

void Module::messageBusFound(fn::AutoPtr<MessageBus> bus) {
  // The waiting modules start once the process's bus holds the state the hub kept, so that
  // what they do first (logging included) already follows it.
  MessageBus::setProcessBus(std::move(bus)).then([] {
    // The module holding the bus went meanwhile: the next waiting one looks it up again.
    if (!MessageBus::processBus()) {
      resumeMessageBusLookup();
      return;
    }
    auto waiting = std::exchange(_messageBusInitializedCallbacks, {});
    for (auto& waiter : waiting) {
      // One module's onConnected() may destroy another.
      if (!waiter.module.expired())
        waiter.callback();
    }
  });
}

void Module::resumeMessageBusLookup() {
  if (_pendingLookup || _messageBusInitializedCallbacks.empty())
    return;
  if (auto module = _messageBusInitializedCallbacks.front().module.lock())
    (*module)->lookUpMessageBus();
}

void Module::messageBusLookupFailed(std::exception_ptr const& error) {
  logModule.log(fn::logging::ERR, "Module {} ({}) could not get the message bus: {}",
                _init.displayName(), _init.workerTag(), fn::describeException(error));
  if (!_init.separateProcess())
    return;
  // Without the bus the module cannot do its work; ending lets its supervisor start it again.
  logModule.log(fn::logging::ERR, "Module {} ({}) ends", _init.displayName(), _init.workerTag());
  _exitStatus = 1;
  fn::uv::Loop::defaultLoop().stop();
}

void Module::hubLost(fn::uv::Status const& status) {
  if (!_init.separateProcess()) {
    logModule.log(fn::logging::DBG, "In-process module {} lost the hub: {}", _init.displayName(),
                  status);
    return;
  }
  // Not terminate(): a subclass may refuse to terminate, but nothing may keep a module
  // process alive once its hub is gone.
  logModule.log(fn::logging::INF, "Module {} ({}) lost the hub and stops: {}", _init.displayName(),
                _init.workerTag(), status);
  if (!_worker->connected())
    _exitStatus = 1;
  fn::uv::Loop::defaultLoop().stop();
}

void Module::keepInProcess(std::unique_ptr<Module> module) {
  inProcessModules().push_back(std::move(module));
}

void Module::destroyInProcessModules() {
  auto modules = std::exchange(inProcessModules(), {});
  while (!modules.empty())
    modules.pop_back();
}

size_t Module::inProcessModuleCount() {
  return inProcessModules().size();
}

namespace internal {

void moduleCouldNotStart(char const* displayName, std::exception_ptr const& error) {
  logModule.log(fn::logging::ERR, "Module {} could not start: {}", displayName,
                fn::describeException(error));
}

}  // namespace internal

}  // namespace ipc

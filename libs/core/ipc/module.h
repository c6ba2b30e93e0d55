#pragma once

// ipc::Module: the base of the code that runs inside a module.
//
// A module owns its worker and is its delegate. It connects at once; when connected, it makes
// sure the process has the message bus (the first module of a process looks it up in the
// registry, MessageBus::processBus() holds it from then on, and fn::MessageBus::instance()
// has received the sticky messages the hub keeps) and only then calls onConnected(). A module
// in a process of its own may terminate when idle and stops its loop when the hub goes away,
// so no module process outlives its hub; if the bus cannot be found it logs why and ends too. A
// module inside the hub's process just stays when its worker loses the hub: the hub is ending
// anyway. The termination handshake becomes the questions wantsIdleTermination() and
// canTerminate().
//
// Loop-bound: construct, run and destroy on the thread of fn::uv::Loop::defaultLoop(), the
// loop every module runs on. Destroying a module destroys its worker, so the objects the
// module made must go first (a subclass's members do).
//
// A module library exports its entry point with LUMAREN_MODULE (core/ipc/module_entry.h); the
// modules it creates inside the hub are kept by keepInProcess() until the hub calls
// destroyInProcessModules(), which it must do before its dispatcher and loop go away.

#include <functional>
#include <memory>
#include <vector>

#include "core/export.h"
#include "core/ipc/worker.h"
#include "foundation/string.h"

namespace ipc {

class MessageBus;

/// What a module is started with.
class CORE_EXPORT ModuleInitData {
public:
  ModuleInitData(fn::String const& pipePath,
                 fn::String const& displayName,
                 fn::String const& workerTag,
                 fn::String const& userData,
                 bool separateProcess);

  fn::String const& pipePath() const { return _pipePath; }
  fn::String const& displayName() const { return _displayName; }
  fn::String const& workerTag() const { return _workerTag; }
  fn::String const& userData() const { return _userData; }
  bool separateProcess() const { return _separateProcess; }

private:
  fn::String _pipePath;
  fn::String _displayName;
  fn::String _workerTag;
  fn::String _userData;
  bool _separateProcess;
};

/// How long the first module of a process waits for the message bus in the registry.
inline constexpr fn::Duration MESSAGE_BUS_LOOKUP_TIMEOUT = fn::Duration::seconds(20);

class CORE_EXPORT Module : private Worker::Delegate {
public:
  explicit Module(ModuleInitData const& init);
  /// With shortened durations, for tests.
  Module(ModuleInitData const& init, Worker::Options options);
  ~Module() override;
  Module(Module const&) = delete;
  Module& operator=(Module const&) = delete;

  /// Runs the default loop until the module terminates (or its hub goes away).
  virtual void run();

  Worker& worker() { return *_worker; }
  bool ready() const { return _ready; }
  ModuleInitData const& initData() const { return _init; }
  /// What the module's process should exit with once run() returned: 0, or 1 when the
  /// module ended because it could not reach the hub or get the message bus.
  int exitStatus() const { return _exitStatus; }

  /// Keeps a module created inside the hub's process alive until destroyInProcessModules().
  static void keepInProcess(std::unique_ptr<Module> module);
  /// Destroys the modules kept in process, the latest first.
  static void destroyInProcessModules();
  static size_t inProcessModuleCount();

protected:
  /// Connected and the process's message bus is available.
  virtual void onConnected();
  virtual bool wantsIdleTermination();
  virtual bool canTerminate();
  /// Stops the default loop.
  virtual void terminate();
  virtual void onAboutToQuit();

private:
  /// A module waiting for the process's message bus, and what to do once it is there.
  struct BusWaiter {
    std::weak_ptr<Module*> module;
    std::move_only_function<void()> callback;
  };

  void workerDidConnect(Worker& worker) override;
  bool wantsIdleTermination(Worker& worker) override;
  bool workerCanTerminate(Worker& worker) override;
  void workerRequestsTermination(Worker& worker) override;
  void aboutToQuit(Worker& worker) override;

  void becomeReady();
  void lookUpMessageBus();
  void messageBusLookupFailed(std::exception_ptr const& error);
  void hubLost(fn::uv::Status const& status);
  static void messageBusFound(fn::AutoPtr<MessageBus> bus);
  static void resumeMessageBusLookup();

  /// Shared by all modules of the process: the modules waiting for the bus, in the order
  /// they connected.
  static std::vector<BusWaiter> _messageBusInitializedCallbacks;
  /// The module whose worker runs the one lookup of the bus; null when none is pending.
  static Module* _pendingLookup;

  ModuleInitData _init;
  std::unique_ptr<Worker> _worker;
  bool _ready = false;
  int _exitStatus = 0;
  fn::Handle _disconnected;
  // Callbacks that may run after this module is gone check it; reset first in the destructor.
  std::shared_ptr<Module*> _lifetime = std::make_shared<Module*>(this);
};

}  // namespace ipc

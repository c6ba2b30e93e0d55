#pragma once

// ipc::Module: the base of the code that runs inside a module.
//
// A module owns its worker and is its delegate. It connects at once; when connected, it makes
// sure the process has the message bus (the first module of a process looks it up in the
// registry) and only then calls onConnected(). A module in a process of its own may terminate
// when idle and stops its loop when the hub goes away, so no module process outlives its hub.
// The termination handshake becomes the questions wantsIdleTermination() and canTerminate().
//
// Loop-bound: construct, run and destroy on the thread of fn::RunLoop::defaultLoop().
//
// A module library exports its entry point with LUMAREN_MODULE (core/ipc/module_entry.h).

#include <functional>
#include <memory>

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

  /// Runs the default loop until the module terminates (or its hub goes away).
  virtual void run();

  Worker& worker() { return *_worker; }
  bool ready() const { return _ready; }
  ModuleInitData const& initData() const { return _init; }

protected:
  /// Connected and the process's message bus is available.
  virtual void onConnected();
  virtual bool wantsIdleTermination();
  virtual bool canTerminate();
  /// Stops the default loop.
  virtual void terminate();
  virtual void onAboutToQuit();

private:
  void workerDidConnect(Worker& worker) override;
  bool wantsIdleTermination(Worker& worker) override;
  bool workerCanTerminate(Worker& worker) override;
  void workerRequestsTermination(Worker& worker) override;
  void aboutToQuit(Worker& worker) override;

  ModuleInitData _init;
  std::unique_ptr<Worker> _worker;
  bool _ready = false;
  fn::Handle _disconnected;
};

}  // namespace ipc

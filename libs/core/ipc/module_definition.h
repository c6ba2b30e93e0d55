#pragma once

// How one module is started and stopped.
//
// A ModuleDefinition is what the hub's ModuleManager drives: it launches the module with a
// worker tag (the module says it in its HELLO, which is how the manager recognises the
// connection), kills it when it stops responding, and reports through onExit a module process
// that ended in any other way. ExternalModule runs a module loader executable as a child process;
// DefaultExternalModule passes it the module's shared library, the hub's pipe path and the
// tag. InProcessModule loads the module's shared library into the hub and enters it through
// its "moduleEntryPoint"; it cannot be killed, so the manager leaves it running when it stops
// responding.
//
// Loop-bound: launch, kill and onExit run on the dispatcher's loop thread. An in-process
// module runs on fn::uv::Loop::defaultLoop(), so a hub with in-process modules runs its
// dispatcher there; the library stays loaded for the rest of the process, since the modules it
// made may outlive their definition. Destroying an ExternalModule kills its process, if one
// is running, and no onExit follows.

#include <memory>
#include <optional>
#include <vector>

#include "core/export.h"
#include "foundation/object.h"
#include "foundation/signal.h"
#include "foundation/string.h"

namespace fn {
class SharedLibrary;
namespace uv {
class Process;
}
}  // namespace fn

namespace ipc {

class Dispatcher;

/// The name of the module loader executable, after the application name and a dot.
inline constexpr char const* MODULE_LOADER_NAME = "ModuleLoader";
/// The environment variable through which a module loader learns the process id of the hub
/// that started it, so that it can tell whether the hub is still its parent.
inline constexpr char const* HUB_PROCESS_ID_VARIABLE = "LUMAREN_HUB_PID";

/// The signature of the symbol "moduleEntryPoint" that every module library exports. The module
/// loader calls it with `separateProcess` true and returns its result as the process's exit
/// status: it returns when the module ended. The hub calls it for an in-process module with
/// `separateProcess` false, on the hub's loop thread: it creates the module and returns at once.
using ModuleEntryPoint = int (*)(char const* pipePath, char const* tag, bool separateProcess);
inline constexpr char const* MODULE_ENTRY_POINT = "moduleEntryPoint";

class CORE_EXPORT ModuleDefinition {
public:
  /// What an external module's running process is, for diagnostics.
  struct ProcessInfo {
    int pid = 0;
  };

  /// An in-process module for `name` that keeps `launchFirst`, or a DefaultExternalModule
  /// whose executable is pathForExecutable(application name + "." + loaderName). The caller
  /// owns the result.
  static ModuleDefinition* create(fn::String const& name,
                                  fn::String const& loaderName,
                                  bool inProcess,
                                  bool launchFirst,
                                  bool externalFlag);

  /// Where the application's executables are: "bin/<name>" below the application's directory
  /// (fn::PathManager), or "../<name>" for a layout without a bin directory.
  static fn::String pathForExecutable(fn::String const& name);
  /// Where module libraries are: "modules/<name>" (or "../modules/<name>") below the
  /// application's directory, with the platform's suffix for shared libraries.
  static fn::String pathForSharedLibrary(fn::String const& name);

  explicit ModuleDefinition(fn::String name);
  ModuleDefinition(ModuleDefinition const&) = delete;
  ModuleDefinition& operator=(ModuleDefinition const&) = delete;

  virtual bool launchFirst() const = 0;
  /// Starts the module; throws when it cannot.
  virtual void launch(Dispatcher& dispatcher, fn::String const& tag) = 0;
  virtual void kill(bool force) = 0;
  virtual bool canBeKilled() const = 0;
  virtual std::optional<ProcessInfo> processInfo() const = 0;
  virtual fn::String name() const = 0;
  virtual fn::String moduleName() const = 0;
  virtual ~ModuleDefinition();

  /// A module process ended without kill(): its exit status and the signal that ended it (0
  /// if none). Emitted on the dispatcher's loop.
  fn::Signal<long long, int>& onExit() { return _onExit; }

protected:
  fn::String _name;
  fn::Signal<long long, int> _onExit;
};

class CORE_EXPORT ExternalModule : public ModuleDefinition {
public:
  ExternalModule(fn::String name, fn::String executablePath, bool externalFlag);
  ~ExternalModule() override;

  bool launchFirst() const override { return false; }
  /// Spawns the executable with arguments(); throws when it cannot be started. A process
  /// still running is an error of the caller (asserted).
  void launch(Dispatcher& dispatcher, fn::String const& tag) override;
  /// Sends SIGKILL to the running child, if any, and forgets it so that it can be launched
  /// again at once; its end is not reported through onExit (the caller killed it).
  void kill(bool force) override;
  bool canBeKilled() const override { return true; }
  /// The running child's process id; empty when none runs.
  std::optional<ProcessInfo> processInfo() const override;
  fn::String name() const override { return _name; }
  fn::String moduleName() const override { return _name; }

  fn::String const& executablePath() const { return _executablePath; }

  /// The child's arguments after the executable.
  virtual std::vector<fn::String> arguments(Dispatcher& dispatcher, fn::String const& tag) = 0;

  bool externalFlag() const { return _externalFlag; }

protected:
  fn::String _executablePath;
  bool _externalFlag;
  fn::AutoPtr<fn::uv::Process> _process;
  // Exit callbacks of children check it: they may come after this definition is gone.
  std::shared_ptr<ExternalModule*> _lifetime = std::make_shared<ExternalModule*>(this);
};

class CORE_EXPORT DefaultExternalModule : public ExternalModule {
public:
  using ExternalModule::ExternalModule;

  /// The module's shared library, the hub's pipe path, the tag.
  std::vector<fn::String> arguments(Dispatcher& dispatcher, fn::String const& tag) override;
};

class CORE_EXPORT InProcessModule : public ModuleDefinition {
public:
  InProcessModule(fn::String name, bool launchFirst);
  ~InProcessModule() override;

  bool launchFirst() const override { return _launchFirst; }
  /// Loads the library once and calls its entry point; later launches only log. Throws when
  /// the library or its entry point cannot be loaded, when the entry point fails, or when the
  /// dispatcher does not run on the default loop.
  void launch(Dispatcher& dispatcher, fn::String const& tag) override;
  /// Logs that an in-process module cannot be killed.
  void kill(bool force) override;
  bool canBeKilled() const override { return false; }
  std::optional<ProcessInfo> processInfo() const override { return std::nullopt; }
  fn::String name() const override { return _name; }
  fn::String moduleName() const override { return _name; }

  fn::String const& libraryPath() const { return _libraryPath; }

private:
  fn::String _libraryPath;
  bool _launchFirst;
  std::unique_ptr<fn::SharedLibrary> _library;
};

}  // namespace ipc

#include "core/ipc/module_definition.h"

#include <csignal>

#include "core/ipc/dispatcher.h"
#include "foundation/assert.h"
#include "foundation/logging/category.h"
#include "foundation/path_manager.h"
#include "foundation/shared_library.h"
#include "foundation/uv/loop.h"
#include "foundation/uv/process.h"

namespace ipc {
namespace {

fn::logging::Category logLoader("ipc.moduleLoader");
fn::logging::Category logModule("ipc.module");

// A path below the application's directory, in the layout the path manager says it has.
fn::String applicationPath(fn::String const& withBinDirectory, fn::String const& without) {
  auto& paths = fn::PathManager::instance();
  return paths.getPath(fn::PathManager::APPLICATION,
                       paths.hasBinDirectory() ? withBinDirectory : without);
}

}  // namespace

ModuleDefinition* ModuleDefinition::create(fn::String const& name,
                                           fn::String const& loaderName,
                                           bool inProcess,
                                           bool launchFirst,
                                           bool externalFlag) {
  if (inProcess)
    return new InProcessModule(name, launchFirst);
  fn::String loader = fn::PathManager::instance().applicationName() + "." + loaderName;
  return new DefaultExternalModule(name, pathForExecutable(loader), externalFlag);
}

fn::String ModuleDefinition::pathForExecutable(fn::String const& name) {
  return applicationPath("bin/" + name, "../" + name);
}

fn::String ModuleDefinition::pathForSharedLibrary(fn::String const& name) {
  fn::String file = name + fn::SHARED_LIBRARY_SUFFIX;
  return applicationPath("modules/" + file, "../modules/" + file);
}

ModuleDefinition::ModuleDefinition(fn::String name) : _name(std::move(name)) {}

ModuleDefinition::~ModuleDefinition() = default;

ExternalModule::ExternalModule(fn::String name, fn::String executablePath, bool externalFlag)
    : ModuleDefinition(std::move(name)),
      _executablePath(std::move(executablePath)),
      _externalFlag(externalFlag) {}

ExternalModule::~ExternalModule() {
  _lifetime.reset();
  if (_process && !_process->exited())
    _process->kill(SIGKILL);
}

void ExternalModule::launch(Dispatcher& dispatcher, fn::String const& tag) {
  FN_ASSERT_LOOP_THREAD();
  if (_process)
    fn::debug::internal::assertionFailure(__FILE__, "launch", __LINE__, "!_process");
  logLoader.log(fn::logging::DBG, "About to launch module loader at {}", _executablePath);
  fn::uv::Process::Options options;
  options.file = _executablePath;
  options.arguments = arguments(dispatcher, tag);
  options.standardInput = 0;
  options.inheritOutput = true;
  options.endWithThisProcess = true;
  options.environment = {fmt::format("{}={}", HUB_PROCESS_ID_VARIABLE, uv_os_getpid())};
  std::weak_ptr<ExternalModule*> alive = _lifetime;
  auto spawned = std::make_shared<fn::uv::Process*>(nullptr);
  _process = fn::uv::Process::spawn(dispatcher.loop(), options,
                                    [alive, spawned](int64_t status, int signal) {
                                      auto self = alive.lock();
                                      // A child that was killed through kill() has been forgotten:
                                      // the caller knows.
                                      if (!self || (*self)->_process.get() != *spawned)
                                        return;
                                      (*self)->_process.reset();
                                      (*self)->_onExit.emit(status, signal);
                                    });
  *spawned = _process.get();
}

void ExternalModule::kill(bool) {
  FN_ASSERT_LOOP_THREAD();
  if (!_process)
    return;
  _process->kill(SIGKILL);
  _process.reset();
}

std::optional<ModuleDefinition::ProcessInfo> ExternalModule::processInfo() const {
  if (!_process || _process->exited())
    return std::nullopt;
  return ProcessInfo{_process->pid()};
}

std::vector<fn::String> DefaultExternalModule::arguments(Dispatcher& dispatcher,
                                                         fn::String const& tag) {
  return {pathForSharedLibrary(_name), dispatcher.pipePath(), tag};
}

InProcessModule::InProcessModule(fn::String name, bool launchFirst)
    : ModuleDefinition(name),
      _libraryPath(pathForSharedLibrary(name)),
      _launchFirst(launchFirst) {}

InProcessModule::~InProcessModule() = default;

void InProcessModule::launch(Dispatcher& dispatcher, fn::String const& tag) {
  FN_ASSERT_LOOP_THREAD();
  if (_library) {
    logModule.log(fn::logging::WRN, "Shared library for module {} has already been loaded", _name);
    return;
  }
  // Modules always run on the default loop; one the hub does not run would never start. (Asked
  // of libuv: making our default loop here would make it the thread's loop behind the hub.)
  if (dispatcher.loop().raw() != uv_default_loop()) {
    throw fn::IllegalStateException("In-process modules need the dispatcher on the default loop");
  }
  auto library = std::make_unique<fn::SharedLibrary>();
  library->load(_libraryPath);
  auto entry = library->getSymbolAs<ModuleEntryPoint>(MODULE_ENTRY_POINT);
  // The modules the library creates may outlive this definition; their code must stay.
  library->keepLoaded();
  _library = std::move(library);
  int status = entry(dispatcher.pipePath().c_str(), tag.c_str(), false);
  if (status != 0) {
    throw fn::withPath(fn::RuntimeException(
                           fmt::format("The entry point of module {} failed ({})", _name, status)),
                       _libraryPath);
  }
}

void InProcessModule::kill(bool) {
  logModule.log(fn::logging::WRN, "Can't kill in-process module {}", _name);
}

}  // namespace ipc

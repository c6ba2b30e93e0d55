#pragma once

// LUMAREN_MODULE(ModuleClass, "Display Name"): the entry point of a module library.
//
// Put it in exactly one source file of the library, after the module class. It defines the
// exported C function "moduleEntryPoint" (signature ipc::ModuleEntryPoint) that the module
// loader and the hub look up:
//
// - in a process of its own (separateProcess true, from the module loader) it creates the
//   module, runs it until it ends, destroys it and returns the process's exit status;
// - inside the hub (separateProcess false) it creates the module, hands it to
//   ipc::Module::keepInProcess() and returns 0 at once: the hub's loop runs it from then on.
//
// Either way it returns 1, after logging why, when the module cannot be created.
//
// ModuleClass derives from ipc::Module and has a constructor taking ipc::ModuleInitData.

#include <memory>
#include <type_traits>

#include "core/ipc/module.h"
#include "core/ipc/module_definition.h"
#include "foundation/exception.h"

namespace ipc {

template <typename M>
concept ModuleClass = std::is_base_of_v<Module, M> && std::is_constructible_v<M, ModuleInitData>;

namespace internal {
CORE_EXPORT void moduleCouldNotStart(char const* displayName, std::exception_ptr const& error);
}

/// What LUMAREN_MODULE's entry point does.
template <ModuleClass M>
int enterModule(char const* displayName,
                char const* pipePath,
                char const* tag,
                bool separateProcess) {
  try {
    ModuleInitData init(pipePath, displayName, tag, fn::String(), separateProcess);
    if (!separateProcess) {
      Module::keepInProcess(std::make_unique<M>(init));
      return 0;
    }
    auto module = std::make_unique<M>(init);
    module->run();
    int status = module->exitStatus();
    module.reset();
    return status;
  } catch (...) {
    internal::moduleCouldNotStart(displayName, std::current_exception());
    return 1;
  }
}

}  // namespace ipc

#if defined(_WIN32)
#define LUMAREN_MODULE_EXPORT __declspec(dllexport)
#else
#define LUMAREN_MODULE_EXPORT __attribute__((visibility("default")))
#endif

#define LUMAREN_MODULE(ModuleClassName, displayName)                                           \
  extern "C" LUMAREN_MODULE_EXPORT int moduleEntryPoint(char const* pipePath, char const* tag, \
                                                        bool separateProcess) {                \
    return ::ipc::enterModule<ModuleClassName>(displayName, pipePath, tag, separateProcess);   \
  }                                                                                            \
  static_assert(std::is_same_v<decltype(&moduleEntryPoint), ::ipc::ModuleEntryPoint>)

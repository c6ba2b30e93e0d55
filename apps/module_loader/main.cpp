// Lumaren.ModuleLoader (and Orbisant.ModuleLoader, the same for the other product): runs one
// module in a process of its own.
//
//   Lumaren.ModuleLoader LIBRARY PIPE TAG
//
// Loads the module library LIBRARY, looks up its "moduleEntryPoint" and calls it with the
// hub's pipe path PIPE and the worker tag TAG; the entry point returns when the module ended,
// and its result is the exit status. The hub starts it (ipc::DefaultExternalModule) and says
// its own process id in LUMAREN_HUB_PID. Exit status 2: wrong arguments; 1: the library or its
// entry point could not be loaded; 3: the hub was already gone.

#include <csignal>
#include <cstdio>
#include <filesystem>

#include "core/ipc/module_definition.h"
#include "core/logging_profile_sink.h"
#include "foundation/environment.h"
#include "foundation/shared_library.h"
#include "foundation/uv/loop.h"
#include "parent_death.h"

namespace {

constexpr int EXIT_USAGE = 2;
constexpr int EXIT_NO_MODULE = 1;
constexpr int EXIT_NO_HUB = 3;

}  // namespace

int main(int argc, char** argv) {
  // First of all, so that there is no moment in which the hub could die unnoticed.
  if (!module_loader::dieWithParent(
          fn::String(fn::Environment::get(ipc::HUB_PROCESS_ID_VARIABLE)).toInt(10)))
    return EXIT_NO_HUB;
  if (argc != 4) {
    std::fputs("usage: " LOADER_NAME " LIBRARY PIPE TAG\n", stderr);
    return EXIT_USAGE;
  }
  // The module's log files are named after its library: "greeter" for .../greeter.so.
  fn::uv::Loop::defaultLoop();
  core::initLoggingProfiles(std::filesystem::path(argv[1]).stem().string());
  fn::SharedLibrary library;
  ipc::ModuleEntryPoint entry = nullptr;
  try {
    library.load(argv[1]);
    entry = library.getSymbolAs<ipc::ModuleEntryPoint>(ipc::MODULE_ENTRY_POINT);
  } catch (fn::Exception const& e) {
    std::fprintf(stderr, LOADER_NAME ": no module in %s: %s\n", argv[1], e.toString().c_str());
    return EXIT_NO_MODULE;
  }
  // The module's objects and posted work may still refer to its code while the process ends.
  library.keepLoaded();
  return entry(argv[2], argv[3], true);
}

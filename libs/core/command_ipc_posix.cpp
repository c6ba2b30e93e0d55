#include "core/command_ipc.h"
#include "foundation/environment.h"
#include "foundation/runtime_directory.h"

namespace core {

fn::String CommandIPC::pipePath() {
  return fn::runtimeDirectory() + "/lumaren-command-ipc." + fn::Environment::userName();
}

}  // namespace core

#include "core/command_ipc.h"
#include "foundation/environment.h"

namespace core {

fn::String CommandIPC::pipePath() {
  return "\\\\.\\pipe\\lumaren-command-ipc." + fn::Environment::userName();
}

}  // namespace core

#include "core/ipc/pipe_path.h"
#include "foundation/runtime_directory.h"
#include "foundation/uuid.h"

namespace ipc {

fn::String runtimeDirectory() {
  return fn::runtimeDirectory();
}

// Named pipes live in the kernel's pipe name space; their security descriptor, not a
// directory, keeps other users out.
fn::String makePipePath() {
  return "\\\\.\\pipe\\lumaren-" + fn::UUIDGenerator::defaultGenerator().createOne().toString();
}

fn::String defaultPipeFile() {
  return runtimeDirectory() + "/hub.pipe";
}

}  // namespace ipc

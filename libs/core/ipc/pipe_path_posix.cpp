#include "core/ipc/pipe_path.h"
#include "foundation/exception.h"
#include "foundation/runtime_directory.h"
#include "foundation/uuid.h"

namespace ipc {
namespace {

// sun_path holds 108 bytes including the terminating zero.
constexpr size_t MAX_SOCKET_PATH = 107;

}  // namespace

fn::String runtimeDirectory() {
  return fn::runtimeDirectory();
}

fn::String makePipePath() {
  fn::String path = runtimeDirectory() + "/lumaren-" +
                    fn::UUIDGenerator::defaultGenerator().createOne().toString();
  if (path.size() > MAX_SOCKET_PATH)
    throw fn::withPath(fn::IOException("The pipe path is too long for a local socket"), path);
  return path;
}

fn::String defaultPipeFile() {
  return runtimeDirectory() + "/hub.pipe";
}

}  // namespace ipc

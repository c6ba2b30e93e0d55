#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/ipc/pipe_path.h"
#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/uuid.h"

namespace ipc {
namespace {

// sun_path holds 108 bytes including the terminating zero.
constexpr size_t MAX_SOCKET_PATH = 107;

}  // namespace

fn::String runtimeDirectory() {
  fn::String base = fn::Environment::get("XDG_RUNTIME_DIR");
  fn::String directory =
      base.empty() ? fn::String(fmt::format("/tmp/lumaren-{}", getuid())) : base + "/lumaren";
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
    throw fn::withErrno(
        fn::withPath(fn::IOException("Cannot create the runtime directory"), directory), errno);
  // Another user may have planted the directory (in /tmp anyone can): refuse to use it.
  struct stat info;
  if (::lstat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != getuid())
    throw fn::withPath(fn::IOException("The runtime directory is not a directory of this user"),
                       directory);
  if ((info.st_mode & 077) != 0 && ::chmod(directory.c_str(), 0700) != 0)
    throw fn::withErrno(
        fn::withPath(fn::IOException("Cannot make the runtime directory private"), directory),
        errno);
  return directory;
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

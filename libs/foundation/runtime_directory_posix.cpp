#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/runtime_directory.h"

namespace fn {

String runtimeDirectory() {
  String base = Environment::get("XDG_RUNTIME_DIR");
  String directory =
      base.empty() ? String(fmt::format("/tmp/lumaren-{}", getuid())) : base + "/lumaren";
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
    throw withErrno(withPath(IOException("Cannot create the runtime directory"), directory), errno);
  // Another user may have planted the directory (in /tmp anyone can): refuse to use it.
  struct stat info;
  if (::lstat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != getuid())
    throw withPath(IOException("The runtime directory is not a directory of this user"), directory);
  if ((info.st_mode & 077) != 0 && ::chmod(directory.c_str(), 0700) != 0)
    throw withErrno(withPath(IOException("Cannot make the runtime directory private"), directory),
                    errno);
  return directory;
}

}  // namespace fn

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>

#include "parent_death.h"

namespace module_loader {

bool dieWithParent(std::optional<int64_t> hub) {
  pid_t parent = ::getppid();
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
    return true;
  // A parent that died before the request was made never triggers it: the process has been
  // handed to a reaper by then, so its parent is no longer the hub. Init is a parent like any
  // other when the hub itself is the first process of its namespace (a container).
  if (hub)
    return ::getppid() == *hub;
  return parent != 1 && ::getppid() == parent;
}

}  // namespace module_loader

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>

#include "parent_death.h"

namespace module_loader {

bool dieWithParent() {
  pid_t parent = ::getppid();
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
    return true;
  // A parent that died before the request was made never triggers it: the process has been
  // handed to a reaper by then, so its parent changed (or is init).
  return parent != 1 && ::getppid() == parent;
}

}  // namespace module_loader

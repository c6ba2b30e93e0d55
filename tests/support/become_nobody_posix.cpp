#include <pwd.h>
#include <unistd.h>

#include "peer.h"

namespace testing_support {

bool becomeNobody() {
  passwd* nobody = getpwnam("nobody");
  return nobody && setgid(nobody->pw_gid) == 0 && setuid(nobody->pw_uid) == 0;
}

}  // namespace testing_support

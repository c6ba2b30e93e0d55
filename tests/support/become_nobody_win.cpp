#include "peer.h"

namespace testing_support {

// Another user's token needs that user's password on Windows.
bool becomeNobody() {
  return false;
}

}  // namespace testing_support

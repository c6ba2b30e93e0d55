#include "foundation/uv/loop.h"

namespace fn::uv {

// Windows has no SIGPIPE: a write to a closed pipe fails with an error code.
void Loop::preparePlatform() {}

}  // namespace fn::uv

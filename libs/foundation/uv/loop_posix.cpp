#include <csignal>

#include "foundation/uv/loop.h"

namespace fn::uv {

void Loop::preparePlatform() {
  // A write to a peer that went away must fail with EPIPE, not kill the process. libuv leaves
  // this to the application; every process of ours runs a Loop, so it is settled here.
  ::signal(SIGPIPE, SIG_IGN);
}

}  // namespace fn::uv

#include "foundation/run_loop.h"

#include "foundation/assert.h"

namespace fn {
namespace {
// Read by every loop-thread check on the hot path. The initial-exec model makes that one
// instruction instead of a call into the dynamic linker; a pointer fits in the static TLS
// space glibc keeps even for a library loaded later.
#if defined(__ELF__)
[[gnu::tls_model("initial-exec")]]
#endif
thread_local RunLoop* current = nullptr;
}  // namespace

RunLoop::RunLoop() = default;

RunLoop::~RunLoop() {
  if (current == this)
    current = _previous;
}

void RunLoop::makeCurrent() {
  _thread = std::this_thread::get_id();
  _previous = current;
  current = this;
}

RunLoop* RunLoop::currentLoop() {
  return current;
}

void assertOnLoopThread(char const* file, char const* function, int line) {
  if (!current) [[unlikely]]
    debug::internal::assertionFailure(file, function, line,
                                      "Function must be called on main thread");
}

}  // namespace fn

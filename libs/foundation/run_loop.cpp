#include "foundation/run_loop.h"

#include "foundation/assert.h"

namespace fn {
namespace {
thread_local RunLoop* current = nullptr;
}

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

#include <sys/mman.h>

#include <cstdint>

#include "core/image_buffer.h"

namespace core::internal {
namespace {

constexpr uintptr_t HUGE_PAGE = uintptr_t(2) << 20;
// Below this a plane usually comes from memory the allocator reuses, already mapped.
constexpr size_t LARGE_PLANE = size_t(4) << 20;

}  // namespace

void allocatePlane(fn::ByteArray& plane, size_t size) {
  if (size >= LARGE_PLANE) {
    // A fresh 4K frame costs thousands of page faults, more than copying its pixels; with
    // transparent huge pages (on request: the common "madvise" setting) it costs a few dozen.
    plane.reserve(size);
    auto begin = reinterpret_cast<uintptr_t>(plane.data());
    uintptr_t first = (begin + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
    uintptr_t last = (begin + size) & ~(HUGE_PAGE - 1);
    if (last > first)
      ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
  }
  plane.resize(size);
}

}  // namespace core::internal

#include "core/image_buffer.h"

namespace core::internal {

void allocatePlane(fn::ByteArray& plane, size_t size) {
  plane.resize(size);
}

}  // namespace core::internal

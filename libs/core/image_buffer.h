#pragma once

// How the planes of new images get their memory. Large planes are written once, right after
// they are allocated; on some systems they can be backed in a way that makes that first write
// much cheaper than page by page.

#include <cstddef>

#include "foundation/byte_array.h"

namespace core::internal {

/// Resizes the empty `plane` to `size` zero bytes.
void allocatePlane(fn::ByteArray& plane, size_t size);

}  // namespace core::internal

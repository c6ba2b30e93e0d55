#include "foundation/transform.h"

namespace fn {

Transform::~Transform() = default;

}  // namespace fn

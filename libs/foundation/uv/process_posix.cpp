#include "foundation/uv/process.h"

namespace fn::uv {

// A POSIX parent cannot take its children along; the child asks for the parent-death signal.
void Process::endWithThisProcess() {}

}  // namespace fn::uv

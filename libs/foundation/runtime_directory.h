#pragma once

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

/// The private per-user directory for the application's sockets and lock files:
/// $XDG_RUNTIME_DIR/lumaren, else /tmp/lumaren-<uid>. Created with mode 0700 when missing;
/// IOException when it cannot be created or belongs to another user, since a socket or a lock
/// there would then be open to that user.
FN_EXPORT String runtimeDirectory();

}  // namespace fn

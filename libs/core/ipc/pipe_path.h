#pragma once

#include "core/export.h"
#include "foundation/string.h"

namespace ipc {

/// A fresh path for a hub's pipe: "lumaren-" + a new UUID inside the user's private runtime
/// directory (created if needed and checked to belong to the user), so a new hub never
/// collides with an older one and no other user can reach the socket.
CORE_EXPORT fn::String makePipePath();

/// The private per-user directory that holds the user's pipes and locks.
CORE_EXPORT fn::String runtimeDirectory();

/// Where a hub started for this user writes its pipe path, so that tools find the hub without
/// being told: "hub.pipe" inside the runtime directory.
CORE_EXPORT fn::String defaultPipeFile();

}  // namespace ipc

#pragma once

// Ties the module loader's life to its parent's, the hub: when the hub dies, however it dies,
// the system ends the loader too. The worker's lost connection normally ends a module first;
// this also covers a module that is stopped or too busy to notice.

#include <cstdint>
#include <optional>

namespace module_loader {

/// Arranges for the process to be killed when its parent dies. Returns false when the parent
/// has died already (so the caller should not start): when `hub`, the process id of the hub
/// that started us, is no longer our parent, or without it, when the parent changed meanwhile
/// or is init. On Linux the system watches the thread that started us; the hub starts modules
/// from its loop thread, which lives as long as it.
bool dieWithParent(std::optional<int64_t> hub);

}  // namespace module_loader

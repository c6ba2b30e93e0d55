#pragma once

// core::ProcessLock: tells a process whether it is the first of the user's processes to hold a
// named role (the single-instance test: "am I the running hub?").
//
// The lock is the named mutex "<name>-<user name>": the first creator holds it exclusively for
// as long as any copy of its ProcessLock lives, and loses it when the last copy goes or the
// process ends in any way. Later holders of the name are told they are not exclusive; they
// never wait. Copies share one mutex. Usable from any thread, one object per thread at a time.

#include <memory>

#include "core/export.h"
#include "foundation/named_mutex.h"
#include "foundation/string.h"

namespace core {

class CORE_EXPORT ProcessLock {
public:
  /// Other failures than "another holder has it" (no runtime directory, say) propagate.
  explicit ProcessLock(fn::String const& name);

  /// True when this process created the lock and so is the first holder.
  bool exclusive() const { return _isExclusive; }

private:
  std::shared_ptr<fn::NamedMutex> _mutex;
  bool _isExclusive = false;
};

}  // namespace core

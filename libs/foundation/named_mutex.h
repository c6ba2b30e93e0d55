#pragma once

// fn::NamedMutex: a lock that every process of the user can name, held for as long as the
// object lives. It is never waited for: creating it tells whether this holder came first.
//
// On POSIX it is an flock() on "<name>.lock" in the per-user runtime directory. The kernel drops
// the lock with the last descriptor of the holder, so a holder that dies in any way (SIGKILL
// included) frees the name at once, and no stale file can keep it taken. The descriptor is
// close-on-exec, so child processes never inherit the lock. A non-exclusive mutex holds no lock:
// on this platform it only records that the name was taken.

#include <cstdint>

#include "foundation/exception.h"
#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

FN_DECLARE_EXCEPTION(NamedMutexAlreadyExistsException, RuntimeException);

class FN_EXPORT NamedMutex {
public:
  /// With `exclusive`, takes the mutex or throws NamedMutexAlreadyExistsException when another
  /// holder has it (in this process or another). Without, opens it as it is. IOException when
  /// the lock file cannot be opened.
  NamedMutex(String const& name, bool exclusive);
  ~NamedMutex();
  NamedMutex(NamedMutex const&) = delete;
  NamedMutex& operator=(NamedMutex const&) = delete;

  String const& name() const { return _name; }

private:
  String _name;
  // The lock file's descriptor, or on Windows the mutex's handle.
  std::intptr_t _native = -1;
};

}  // namespace fn

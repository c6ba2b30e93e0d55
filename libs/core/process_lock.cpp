#include "core/process_lock.h"

#include "foundation/environment.h"

namespace core {

ProcessLock::ProcessLock(fn::String const& name) {
  // Per user, so that every user of the machine has a first instance of their own.
  fn::String mutexName = name + "-" + fn::Environment::userName();
  try {
    _mutex = std::make_shared<fn::NamedMutex>(mutexName, true);
    _isExclusive = true;
  } catch (fn::NamedMutexAlreadyExistsException const&) {
    _mutex = std::make_shared<fn::NamedMutex>(mutexName, false);
    _isExclusive = false;
  }
}

}  // namespace core

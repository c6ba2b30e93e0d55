#include <windows.h>

#include <thread>

#include "parent_death.h"

namespace module_loader {

// The hub puts its children in a job that ends them with it. A hub that could not (an older
// system, or a job that forbids nesting) is watched from here as well: a thread waits for the
// hub's process to end and ends this one.
bool dieWithParent(std::optional<int64_t> hub) {
  if (!hub)
    return true;
  HANDLE process = ::OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(*hub));
  if (!process)
    return false;
  if (::WaitForSingleObject(process, 0) == WAIT_OBJECT_0) {
    ::CloseHandle(process);
    return false;
  }
  std::thread([process] {
    ::WaitForSingleObject(process, INFINITE);
    ::TerminateProcess(::GetCurrentProcess(), 1);
  }).detach();
  return true;
}

}  // namespace module_loader

#include <windows.h>

#include "foundation/exception.h"
#include "foundation/wide_string_win.h"

namespace fn {

// Addresses and the module each lies in; symbol names need debug information the release
// build does not carry.
std::vector<StackFrame> Exception::captureStackTrace(int skip) {
  void* addresses[64];
  USHORT count = ::RtlCaptureStackBackTrace(0, 64, addresses, nullptr);
  std::vector<StackFrame> frames;
  for (int i = skip; i < count; ++i) {
    StackFrame frame;
    frame.address = reinterpret_cast<uintptr_t>(addresses[i]);
    HMODULE module = nullptr;
    wchar_t name[MAX_PATH];
    if (::GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<LPCWSTR>(addresses[i]), &module) &&
        ::GetModuleFileNameW(module, name, MAX_PATH))
      frame.moduleName = fromWide(name);
    frames.push_back(std::move(frame));
  }
  return frames;
}

}  // namespace fn

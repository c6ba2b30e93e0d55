#include <dlfcn.h>
#include <execinfo.h>

#include "foundation/exception.h"

namespace fn {

std::vector<StackFrame> Exception::captureStackTrace(int skip) {
  void* addresses[64];
  int count = backtrace(addresses, 64);
  std::vector<StackFrame> frames;
  for (int i = skip; i < count; ++i) {
    StackFrame frame;
    frame.address = reinterpret_cast<uintptr_t>(addresses[i]);
    Dl_info info{};
    if (dladdr(addresses[i], &info)) {
      if (info.dli_fname)
        frame.moduleName = info.dli_fname;
      if (info.dli_sname)
        frame.symbolName = info.dli_sname;
    }
    frames.push_back(std::move(frame));
  }
  return frames;
}

}  // namespace fn

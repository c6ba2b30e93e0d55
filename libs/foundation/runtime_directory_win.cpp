#include <windows.h>

#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/runtime_directory.h"
#include "foundation/wide_string_win.h"

namespace fn {

String runtimeDirectory() {
  // Pipes and mutexes have kernel names on Windows; the directory only holds small files that
  // point to them, so the user's temporary directory (private to the user) serves.
  String base = Environment::get("XDG_RUNTIME_DIR");
  String directory;
  if (!base.empty()) {
    directory = base + "/lumaren";
  } else {
    wchar_t temp[MAX_PATH + 1];
    DWORD size = ::GetTempPathW(MAX_PATH + 1, temp);
    if (size == 0)
      throw IOException("No temporary directory for the runtime directory");
    directory = fromWide(std::wstring_view(temp, size)) + "lumaren-" + Environment::userName();
  }
  if (!::CreateDirectoryW(toWide(directory).c_str(), nullptr) &&
      ::GetLastError() != ERROR_ALREADY_EXISTS)
    throw withPath(withDetail(IOException("Cannot create the runtime directory"),
                              windowsErrorText(::GetLastError())),
                   directory);
  return directory;
}

}  // namespace fn

#include <windows.h>

#include "foundation/named_mutex.h"
#include "foundation/wide_string_win.h"

namespace fn {

NamedMutex::NamedMutex(String const& name, bool exclusive) : _name(name) {
  // "Local\": one name space per logon session; the name already carries the user's name.
  // Backslashes would name another name space, so they become underscores.
  String kernelName = name;
  for (char& c : kernelName) {
    if (c == '\\')
      c = '_';
  }
  std::wstring wide = toWide("Local\\" + kernelName);
  HANDLE handle = ::CreateMutexW(nullptr, FALSE, wide.c_str());
  DWORD error = ::GetLastError();
  if (!handle)
    throw withPath(
        withDetail(IOException("Cannot create the named mutex"), windowsErrorText(error)), name);
  if (exclusive && error == ERROR_ALREADY_EXISTS) {
    ::CloseHandle(handle);
    throw withPath(NamedMutexAlreadyExistsException("The named mutex exists already"), name);
  }
  _native = reinterpret_cast<std::intptr_t>(handle);
}

NamedMutex::~NamedMutex() {
  // The kernel object goes with its last handle, in whichever process that is.
  if (_native != -1)
    ::CloseHandle(reinterpret_cast<HANDLE>(_native));
}

}  // namespace fn

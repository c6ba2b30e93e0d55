#include <windows.h>

#include <lmcons.h>

#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/wide_string_win.h"

namespace fn {

// The process environment is kept in UTF-16; the C library's narrow copy would lose
// characters outside the ANSI code page.
bool Environment::has(char const* name) {
  return ::GetEnvironmentVariableW(toWide(name).c_str(), nullptr, 0) > 0 ||
         ::GetLastError() != ERROR_ENVVAR_NOT_FOUND;
}

String Environment::get(char const* name, String const& fallback) {
  std::wstring wideName = toWide(name);
  DWORD size = ::GetEnvironmentVariableW(wideName.c_str(), nullptr, 0);
  if (size == 0)
    return ::GetLastError() == ERROR_ENVVAR_NOT_FOUND ? fallback : String();
  std::wstring value(size, L'\0');
  size = ::GetEnvironmentVariableW(wideName.c_str(), value.data(), size);
  value.resize(size);
  return fromWide(value);
}

void Environment::set(char const* name, String const& value) {
  // _wputenv_s keeps the C library's copy (getenv) in step with the process environment.
  if (::_wputenv_s(toWide(name).c_str(), toWide(value).c_str()) != 0)
    throw RuntimeException(fmt::format("Cannot set {}", name));
}

void Environment::unset(char const* name) {
  ::_wputenv_s(toWide(name).c_str(), L"");
}

String Environment::userName() {
  wchar_t name[UNLEN + 1];
  DWORD size = UNLEN + 1;
  if (::GetUserNameW(name, &size) && size > 1)
    return fromWide(std::wstring_view(name, size - 1));
  return get("USERNAME", "user");
}

}  // namespace fn

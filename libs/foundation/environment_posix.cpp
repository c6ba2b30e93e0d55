#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "foundation/environment.h"
#include "foundation/exception.h"

namespace fn {

bool Environment::has(char const* name) {
  return std::getenv(name) != nullptr;
}

String Environment::get(char const* name, String const& fallback) {
  char const* value = std::getenv(name);
  return value ? String(value) : fallback;
}

void Environment::set(char const* name, String const& value) {
  if (::setenv(name, value.c_str(), 1) != 0)
    throw withErrno(RuntimeException(fmt::format("Cannot set {}", name)), errno);
}

void Environment::unset(char const* name) {
  ::unsetenv(name);
}

String Environment::userName() {
  // The account, not $USER: a variable anybody can set must not choose whose profile runs.
  passwd entry{};
  passwd* found = nullptr;
  char buffer[4096];
  if (::getpwuid_r(::getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found &&
      found->pw_name)
    return String(found->pw_name);
  return get("USER");
}

}  // namespace fn

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

}  // namespace fn

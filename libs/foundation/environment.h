#pragma once

#include "foundation/export.h"
#include "foundation/string.h"

namespace fn {

/// The process environment. Set variables are inherited by child processes.
class FN_EXPORT Environment {
public:
  static bool has(char const* name);
  /// The value, or `fallback` when the variable is not set.
  static String get(char const* name, String const& fallback = {});
  static void set(char const* name, String const& value);
  static void unset(char const* name);
  /// The name the user logged in with; empty when the system does not know one.
  static String userName();
};

}  // namespace fn

#include <sys/utsname.h>

#include "core/app_info.h"

namespace core {

fn::String AppInfo::operatingSystemName() const {
  utsname names{};
  if (::uname(&names) == 0 && fn::String(names.sysname) != "Linux")
    return fn::String(names.sysname);
  return "Linux";
}

fn::String AppInfo::operatingSystemVersion() const {
  utsname names{};
  if (::uname(&names) != 0)
    return "?";
  fn::String release = fn::String(names.release).trim();
  return release.empty() ? fn::String("?") : release;
}

}  // namespace core

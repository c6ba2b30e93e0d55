#include <windows.h>

#include "core/app_info.h"

namespace core {

fn::String AppInfo::operatingSystemName() const {
  return "Windows";
}

fn::String AppInfo::operatingSystemVersion() const {
  OSVERSIONINFOW info{};
  info.dwOSVersionInfoSize = sizeof(OSVERSIONINFOW);  // 284 bytes
  if (!::GetVersionExW(&info))
    return "?";
  fn::String servicePack;
  int length =
      ::WideCharToMultiByte(CP_UTF8, 0, info.szCSDVersion, -1, nullptr, 0, nullptr, nullptr);
  if (length > 1) {
    servicePack.resize(static_cast<size_t>(length - 1));
    ::WideCharToMultiByte(CP_UTF8, 0, info.szCSDVersion, -1, servicePack.data(), length, nullptr,
                          nullptr);
    servicePack = servicePack.trim();
  }
  fn::String suffix = servicePack.empty() ? fn::String() : fn::String(" (" + servicePack + ")");
  return fn::String(fmt::format("{}.{}{}", info.dwMajorVersion, info.dwMinorVersion, suffix));
}

}  // namespace core

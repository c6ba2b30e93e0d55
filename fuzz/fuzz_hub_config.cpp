// The hub's configuration file: any bytes either give a configuration or a DataFormatException.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "foundation/exception.h"
#include "hub/config.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  try {
    hub::HubConfig config =
        hub::parseConfig(std::string_view(reinterpret_cast<char const*>(data), size), "fuzz");
    for (auto const& module : config.modules) {
      if (module.name.empty() || module.name.find('/') != fn::String::npos)
        __builtin_trap();
    }
  } catch (fn::DataFormatException const&) {
  }
  return 0;
}

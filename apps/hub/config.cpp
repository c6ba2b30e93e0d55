#include "hub/config.h"

#include <set>

#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/json.h"

namespace hub {
namespace {

[[noreturn]] void reject(fn::String const& path, fn::String const& message) {
  if (path.empty())
    throw fn::DataFormatException(message);
  throw fn::withPath(fn::DataFormatException(message), path);
}

bool readFlag(fn::Value const& entry,
              char const* key,
              fn::String const& where,
              fn::String const& path) {
  fn::Value const& value = entry.get(key);
  if (value.isNull())
    return false;
  if (!value.isBool())
    reject(path, fmt::format("{}: \"{}\" must be true or false", where, key));
  return value.asBool();
}

// Module names become file names in the modules directory: nothing that could leave it.
bool isPlainName(fn::String const& name) {
  if (name.empty() || name == "." || name == "..")
    return false;
  for (char c : name)
    if (c == '/' || c == '\\' || c == '\0')
      return false;
  return true;
}

ModuleConfig readModule(fn::Value const& entry, size_t index, fn::String const& path) {
  fn::String where = fmt::format("module {}", index + 1);
  if (!entry.isMap())
    reject(path, fmt::format("{}: expected an object", where));
  for (auto const& [key, value] : entry.asMap()) {
    (void)value;
    if (!key.isString() || (key.asString() != "name" && key.asString() != "inProcess" &&
                            key.asString() != "launchFirst"))
      reject(path, fmt::format("{}: unknown key {}", where, key));
  }
  fn::Value const& name = entry.get("name");
  if (!name.isString() || !isPlainName(name.asString()))
    reject(path, fmt::format("{}: \"name\" must be a library name without a directory", where));
  ModuleConfig module;
  module.name = name.asString();
  where = fmt::format("module {}", module.name);
  module.inProcess = readFlag(entry, "inProcess", where, path);
  module.launchFirst = readFlag(entry, "launchFirst", where, path);
  if (module.launchFirst && !module.inProcess)
    reject(path, fmt::format("{}: only in-process modules can be launched first", where));
  return module;
}

}  // namespace

HubConfig parseConfig(std::string_view text, fn::String const& path) {
  fn::Value root = fn::json::deserialize(text, nullptr, path);
  if (!root.isMap())
    reject(path, "the configuration must be a JSON object");
  HubConfig config;
  for (auto const& [key, value] : root.asMap()) {
    (void)value;
    if (!key.isString() ||
        (key.asString() != "product" && key.asString() != "timeout" && key.asString() != "modules"))
      reject(path, fmt::format("unknown key {}", key));
  }
  fn::Value const& product = root.get("product");
  if (!product.isNull()) {
    auto app = product.isString() ? core::AppInfo::appNamed(product.asString()) : std::nullopt;
    if (!app)
      reject(path, "\"product\" must be the name of a product: Lumaren or Orbisant");
    config.product = *app;
  }
  fn::Value const& timeout = root.get("timeout");
  if (!timeout.isNull()) {
    // Values beyond int64 are held unsigned; they are out of range like any large number.
    int64_t seconds =
        timeout.isInteger() && timeout.is(fn::Value::Type::Integer) ? timeout.asInt() : 0;
    if (seconds <= 0 || seconds > 3600)
      reject(path, "\"timeout\" must be a number of seconds between 1 and 3600");
    config.timeout = fn::Duration::seconds(seconds);
  }
  fn::Value const& modules = root.get("modules");
  if (!modules.isNull() && !modules.isArray())
    reject(path, "\"modules\" must be an array");
  std::set<fn::String> names;
  bool first = false;
  if (modules.isArray()) {
    for (size_t i = 0; i < modules.asArray().size(); ++i) {
      ModuleConfig module = readModule(modules.asArray()[i], i, path);
      if (!names.insert(module.name).second)
        reject(path, fmt::format("module {} is listed twice", module.name));
      if (module.launchFirst && std::exchange(first, true))
        reject(path, fmt::format("module {}: only one module can be launched first", module.name));
      config.modules.push_back(std::move(module));
    }
  }
  return config;
}

HubConfig loadConfig(fn::String const& path) {
  fn::ByteArray bytes = fn::File(path).readAll();
  return parseConfig(std::string_view(reinterpret_cast<char const*>(bytes.data()), bytes.size()),
                     path);
}

std::vector<ipc::ModuleDefinition*> definitionsOf(HubConfig const& config) {
  std::vector<ipc::ModuleDefinition*> definitions;
  for (auto const& module : config.modules)
    definitions.push_back(ipc::ModuleDefinition::create(
        module.name, ipc::MODULE_LOADER_NAME, module.inProcess, module.launchFirst, false));
  return definitions;
}

}  // namespace hub

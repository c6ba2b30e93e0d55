#include "core/app_info.h"

#include <optional>

#include "core/preferences.h"
#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/path_manager.h"
#include "foundation/uuid.h"

namespace core {
namespace {

struct Product {
  char const* shortName;
  char const* displayName;
  char const* publicVersion;
  double internalVersion;
};

// Indexed by AppInfo::App.
constexpr Product PRODUCTS[] = {
    {"Lumaren", "Lumaren", "3.3.7", 168700.0},
    {"Orbisant", "Orbisant", "3.0.0-alpha0", 300.0},
};

std::optional<Product> productFor(int64_t app) {
  if (app < 0 || app >= static_cast<int64_t>(std::size(PRODUCTS)))
    return std::nullopt;
  return PRODUCTS[app];
}

}  // namespace

void AppInfo::initialize(App app) {
  fn::Environment::set(APP_TYPE_VARIABLE, fn::String::number(static_cast<int>(app)));
  if (auto product = productFor(static_cast<int>(app)))
    fn::PathManager::instance().setApplicationName(product->shortName);
}

AppInfo AppInfo::createFromEnvironment() {
  if (!fn::Environment::has(APP_TYPE_VARIABLE))
    throw fn::IllegalStateException(
        "The product is unknown: ManagerAppType is not set (call AppInfo::initialize in the "
        "first process)");
  fn::String text = fn::Environment::get(APP_TYPE_VARIABLE);
  auto number = text.toInt(10);
  auto product = number ? productFor(*number) : std::nullopt;
  if (!product)
    throw fn::withDetail(
        fn::IllegalStateException("The product is unknown: ManagerAppType names no product"),
        "ManagerAppType=" + text);
  // Files of different products must not mix, also in child processes that never called
  // initialize().
  fn::PathManager::instance().setApplicationName(product->shortName);
  return AppInfo(product->shortName, product->displayName, product->publicVersion,
                 product->internalVersion);
}

AppInfo& AppInfo::instance() {
  // Allocated once and never destroyed. A throwing creation leaves the static uninitialised,
  // so the next call tries again.
  static AppInfo* info = new AppInfo(createFromEnvironment());
  return *info;
}

AppInfo::AppInfo(fn::String shortName,
                 fn::String displayName,
                 fn::String publicVersion,
                 double internalVersion)
    : _shortName(std::move(shortName)),
      _displayName(std::move(displayName)),
      _publicVersion(std::move(publicVersion)),
      _internalVersion(internalVersion) {}

AppInfo::AppInfo(AppInfo const& other) = default;
AppInfo::AppInfo(AppInfo&& other) noexcept = default;
AppInfo& AppInfo::operator=(AppInfo const& other) = default;
AppInfo& AppInfo::operator=(AppInfo&& other) noexcept = default;
AppInfo::~AppInfo() = default;

fn::String AppInfo::instanceId() {
  if (!_instanceId.empty())
    return _instanceId;
  try {
    Preferences preferences(
        fn::PathManager::instance().getPath(fn::PathManager::USER_DATA, INSTANCE_FILE_NAME, true));
    preferences.reload();
    fn::Value const& stored = preferences.root().get("instanceId");
    if (!stored.isNull())
      _instanceId = stored.asString();
    if (_instanceId.empty()) {
      _instanceId = fn::UUIDGenerator::defaultGenerator().createOne().toString();
      preferences.root()["instanceId"] = _instanceId;
      preferences.save();
    }
  } catch (...) {
    // A damaged file is left for people to look at; the identifier stays empty for now.
    fn::logException(std::current_exception());
  }
  return _instanceId;
}

}  // namespace core

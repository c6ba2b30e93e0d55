#include "core/app_info.h"

#include <algorithm>
#include <cctype>
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

// The product named by "ManagerAppType"; nullopt when it is not set. A value that names no
// product is refused, never taken for the default.
std::optional<Product> productFromEnvironment() {
  if (!fn::Environment::has(AppInfo::APP_TYPE_VARIABLE))
    return std::nullopt;
  fn::String text = fn::Environment::get(AppInfo::APP_TYPE_VARIABLE);
  auto number = text.toInt(10);
  auto product = number ? productFor(*number) : std::nullopt;
  if (!product)
    throw fn::withDetail(
        fn::IllegalStateException("The product is unknown: ManagerAppType names no product"),
        "ManagerAppType=" + text);
  return product;
}

// Paths asked for before anybody read the product (by a singleton made early, say) must be the
// product's own already: the path manager asks the environment each time it needs the name.
[[maybe_unused]] bool const productNamesPaths = [] {
  fn::PathManager::instance().setApplicationNameSource([]() -> std::optional<fn::String> {
    if (auto product = productFromEnvironment())
      return fn::String(product->shortName);
    return std::nullopt;
  });
  return true;
}();

}  // namespace

std::optional<AppInfo::App> AppInfo::appNamed(std::string_view shortName) {
  auto sameLetters = [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) ==
           std::tolower(static_cast<unsigned char>(b));
  };
  for (size_t i = 0; i < std::size(PRODUCTS); ++i) {
    if (std::ranges::equal(shortName, std::string_view(PRODUCTS[i].shortName), sameLetters))
      return static_cast<App>(i);
  }
  return std::nullopt;
}

void AppInfo::initialize(App app) {
  auto product = productFor(static_cast<int>(app));
  if (!product)
    throw fn::IllegalStateException("AppInfo::initialize: no such product");
  // Files already used under another product's name cannot be taken back.
  if (auto used = fn::PathManager::instance().nameInUse(); used && *used != product->shortName) {
    throw fn::IllegalStateException(
        fmt::format("The product {} is chosen after files of {} were used; call "
                    "AppInfo::initialize first",
                    product->shortName, *used));
  }
  fn::Environment::set(APP_TYPE_VARIABLE, fn::String::number(static_cast<int>(app)));
}

AppInfo AppInfo::createFromEnvironment() {
  auto product = productFromEnvironment();
  if (!product)
    throw fn::IllegalStateException(
        "The product is unknown: ManagerAppType is not set (call AppInfo::initialize in the "
        "first process)");
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

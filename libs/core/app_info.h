#pragma once

// The product this process belongs to, its names and versions, the operating system, and the
// identifier of this installation.
//
// The product is fixed once, in the first process, by initialize(), which puts it into the
// environment variable "ManagerAppType"; child processes inherit the variable and so know the
// product without being told. instance() creates the process-wide object on first use; it
// lives until the process ends. Use it from the main thread.

#include <optional>
#include <string_view>

#include "core/export.h"
#include "foundation/string.h"

namespace core {

class CORE_EXPORT AppInfo {
public:
  /// The products; the number is what travels in the environment.
  enum class App : int {
    LUMAREN = 0,
    ORBISANT = 1,
  };

  static constexpr char const* APP_TYPE_VARIABLE = "ManagerAppType";
  static constexpr char const* INSTANCE_FILE_NAME = "Instance.prefs";

  /// Sets "ManagerAppType" for this process and its future children; the path manager takes
  /// the product's directory name from it. Does not create the object. IllegalStateException
  /// when this process already used files under another product's name: call it first.
  static void initialize(App app);
  /// The product whose short name is `shortName`, in any letter case.
  static std::optional<App> appNamed(std::string_view shortName);

  /// The process-wide object, created from "ManagerAppType" on first use.
  /// IllegalStateException when the variable is missing or names no product; a later call
  /// tries again.
  static AppInfo& instance();

  AppInfo(AppInfo const& other);
  AppInfo(AppInfo&& other) noexcept;
  AppInfo& operator=(AppInfo const& other);
  AppInfo& operator=(AppInfo&& other) noexcept;
  ~AppInfo();

  fn::String applicationShortName() const { return _shortName; }
  fn::String applicationDisplayName() const { return _displayName; }
  fn::String applicationPublicVersion() const { return _publicVersion; }
  double applicationInternalVersion() const { return _internalVersion; }

  /// "Windows" there, "Linux" on Linux.
  fn::String operatingSystemName() const;
  /// The system's version text, "?" when the system does not say.
  fn::String operatingSystemVersion() const;

  /// The installation's identifier, kept in "Instance.prefs" in the per-user data directory
  /// and created by whichever process asks first. Empty when the file cannot be read or
  /// written; the failure is logged and the next call tries again.
  fn::String instanceId();

private:
  AppInfo(fn::String shortName,
          fn::String displayName,
          fn::String publicVersion,
          double internalVersion);
  static AppInfo createFromEnvironment();

  fn::String _shortName;
  fn::String _displayName;
  fn::String _publicVersion;
  double _internalVersion;
  fn::String _instanceId;
};

}  // namespace core

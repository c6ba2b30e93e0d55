#pragma once

// core::LoggingProfileSink: the one sink a process registers for its logging profiles.
//
// initLoggingProfiles(logName) creates it once per process: it reads every file of the
// folder "logging_profiles" in the application data directory, keeps the profiles that apply
// to this process and user, gives each its output, and from then on hands every message to
// each enabled profile. Files whose name starts with "console" write to standard error, and
// at most one of them is active: "console.<user>" before "console". Files whose name starts
// with "memory" are read and left out. Every other file writes to a log file in the log
// directory named after the process's log name: "<logName>.log" for the profile named like
// the process, "<logName>.<profile file name>.log" for the others, rotated at 1,048,576 bytes
// and kept in 9 files. While a console profile is active, the built-in console sink steps
// aside, so that lines are not written twice.
//
// Profiles marked verbose take part only while verbose logging is allowed, which
// setEnableVerboseLogging() switches in every process at once through the sticky bus message
// "com.quorvel.logging-profile.allow-verbose-logging"; a process started later reads the
// state the hub kept.
//
// Threads: logMessage() runs on whatever thread logs and takes no lock. reload() replaces the
// profile list as a whole; lists it replaced are kept until the process ends, so a thread still
// walking one is never left with freed profiles. initLoggingProfiles() and
// setEnableVerboseLogging() belong to the main thread, once its run loop exists.

#include <atomic>
#include <mutex>

#include "core/export.h"
#include "core/logging_profile.h"

namespace core {

class CORE_EXPORT LoggingProfileSink : public fn::logging::Sink {
public:
  /// The namespace of the sink's bus messages.
  static constexpr char const* BUS_NAMESPACE = "com.quorvel.logging-profile";
  /// A sticky bus message whose body is a bool.
  static constexpr char const* ALLOW_VERBOSE_LOGGING =
      "com.quorvel.logging-profile.allow-verbose-logging";
  /// The folder of profile files in the application data directory.
  static constexpr char const* PROFILE_DIRECTORY = "logging_profiles";
  static constexpr uint64_t LOG_FILE_SIZE_LIMIT = 1048576;
  static constexpr unsigned LOG_FILE_COUNT_LIMIT = 9;

  explicit LoggingProfileSink(fn::String const& logName);

  /// Loads, chooses and installs the profiles of `directory`. When the directory or one of its
  /// files cannot be read, the error goes to fn::unhandledException and the profiles loaded
  /// before stay in place.
  void reload(fn::String const& directory);

  void logMessage(fn::logging::Category const& category,
                  fn::logging::Message const& message) override;
  bool followsRules() const override { return false; }
  /// The largest threshold any profile gives `category`, so that messages no profile wants
  /// are never formatted.
  int threshold(fn::logging::Category const& category) const override;

  void setAllowVerboseLogging(bool allow);
  bool allowVerboseLogging() const { return _allowVerboseLogging.load(std::memory_order_relaxed); }

  fn::String const& logName() const { return _logName; }
  /// The active profiles, in directory order.
  fn::ObjectVector<LoggingProfile> const& profiles() const;
  /// The log file a profile file of that name writes to; empty for console and memory
  /// profiles.
  fn::String logFilePath(fn::String const& profileFileName) const;
  /// Whether a console profile is active.
  bool hasConsoleProfile() const;

  Priority maxRootThreshold() const;
  LoggingProfile::ThresholdMap const& maxThresholdMap() const;

private:
  struct Loaded {
    fn::ObjectVector<LoggingProfile> profiles;
    Priority maxRootThreshold = 0;
    LoggingProfile::ThresholdMap maxThresholdMap;
  };

  fn::AutoPtr<LoggingProfile> loadProfile(fn::String const& path);
  fn::ObjectVector<LoggingProfile> loadProfiles(fn::String const& directory);
  void filterProfiles(fn::ObjectVector<LoggingProfile>& profiles);
  Loaded const& loaded() const { return *_loaded.load(std::memory_order_acquire); }

  fn::String const _logName;
  std::atomic<bool> _allowVerboseLogging{false};
  std::mutex _reloadMutex;
  std::atomic<Loaded const*> _loaded;
  std::vector<std::unique_ptr<Loaded const>> _kept;
};

/// Creates the process's profile sink on the first call and registers it in place of the
/// default sinks; later calls return the same sink. `logName` names the process's log files.
CORE_EXPORT fn::AutoPtr<LoggingProfileSink> initLoggingProfiles(fn::String const& logName);

/// The process's profile sink, null before initLoggingProfiles().
CORE_EXPORT fn::AutoPtr<LoggingProfileSink> loggingProfileSink();

/// Allows or stops the verbose profiles of every process, those started later included.
CORE_EXPORT void setEnableVerboseLogging(bool enabled);

}  // namespace core

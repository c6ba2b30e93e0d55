#include "core/logging_profile_sink.h"

#include "foundation/directory_iterator.h"
#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/file_stream.h"
#include "foundation/log_file_target.h"
#include "foundation/message_bus.h"
#include "foundation/path_manager.h"
#include "foundation/run_loop.h"

namespace core {
namespace {

fn::logging::Category logProfiles("core.loggingProfiles");

constexpr std::string_view CONSOLE = "console";
constexpr std::string_view MEMORY = "memory";

fn::String lastComponent(fn::String const& path) {
  size_t slash = path.find_last_of('/');
  return slash == fn::String::npos ? path : fn::String(path.substr(slash + 1));
}

struct ProcessSink {
  std::mutex mutex;
  fn::AutoPtr<LoggingProfileSink> sink;
};

ProcessSink& processSink() {
  // Never destroyed: messages logged while statics go must still find the sink.
  static auto* process = new ProcessSink();
  return *process;
}

}  // namespace

LoggingProfileSink::LoggingProfileSink(fn::String const& logName) : _logName(logName) {
  _kept.push_back(std::make_unique<Loaded const>());
  _loaded.store(_kept.back().get(), std::memory_order_release);
}

fn::AutoPtr<LoggingProfile> LoggingProfileSink::loadProfile(fn::String const& path) {
  auto profile = fn::makeAuto<LoggingProfile>();
  profile->setFileName(lastComponent(path));
  fn::FileInputStream file(path);
  profile->read(file);
  return profile;
}

fn::String LoggingProfileSink::logFilePath(fn::String const& profileFileName) const {
  fn::String lower = profileFileName.toLowerCase();
  if (lower.startsWith(CONSOLE) || lower.startsWith(MEMORY))
    return {};
  fn::String name =
      profileFileName == _logName
          ? fn::String(_logName + ".log")
          : fn::String(_logName + (_logName.empty() ? "" : ".") + profileFileName + ".log");
  return fn::PathManager::instance().getPath(fn::PathManager::LOGS, name);
}

fn::ObjectVector<LoggingProfile> LoggingProfileSink::loadProfiles(fn::String const& directory) {
  fn::ObjectVector<LoggingProfile> profiles;
  for (fn::DirectoryIterator entry(directory), end; entry != end; ++entry) {
    // Folders are not profiles; a folder left there must not stop the others from loading.
    if (fn::File(*entry).isDirectory())
      continue;
    auto profile = loadProfile(*entry);
    fn::String lower = profile->fileName().toLowerCase();
    fn::AutoPtr<fn::LogTarget> target;
    if (lower.startsWith(CONSOLE)) {
      target = fn::makeAuto<fn::LogConsoleTarget>();
    } else if (lower.startsWith(MEMORY)) {
      continue;
    } else {
      fn::String path = logFilePath(profile->fileName());
      fn::File(fn::File(path).directory()).createDirectories(0700);
      auto file = fn::makeAuto<fn::LogFileTarget>(path);
      file->setSizeLimit(LOG_FILE_SIZE_LIMIT);
      file->setFileCountLimit(LOG_FILE_COUNT_LIMIT);
      target = file;
    }
    fn::AutoPtr<fn::logging::Sink> sink;
    if (profile->simple())
      sink = fn::makeAuto<SimpleSink>(target);
    else
      sink = fn::makeAuto<FormattedSink>(target);
    profile->setSink(fn::makeAuto<ThrottledSink>(sink));
    profiles.push_back(profile);
  }
  return profiles;
}

void LoggingProfileSink::filterProfiles(fn::ObjectVector<LoggingProfile>& profiles) {
  fn::String userConsole = fn::String(CONSOLE) + "." + fn::Environment::userName().toLowerCase();
  LoggingProfile* chosen = nullptr;
  for (auto const& profile : profiles) {
    if (!profile)
      throw fn::NullPointerException("A logging profile is missing");
    fn::String lower = profile->fileName().toLowerCase();
    // The user's own console profile wins wherever it stands.
    if (lower == CONSOLE && !chosen)
      chosen = profile.get();
    else if (lower == userConsole)
      chosen = profile.get();
  }
  std::erase_if(profiles, [chosen](fn::AutoPtr<LoggingProfile> const& profile) {
    return profile->fileName().toLowerCase().startsWith(CONSOLE) && profile.get() != chosen;
  });
}

void LoggingProfileSink::reload(fn::String const& directory) {
  std::lock_guard lock(_reloadMutex);
  try {
    auto loaded = std::make_unique<Loaded>();
    loaded->profiles = loadProfiles(directory);
    filterProfiles(loaded->profiles);
    for (auto const& profile : loaded->profiles) {
      loaded->maxRootThreshold = std::max(loaded->maxRootThreshold, profile->rootThreshold());
      for (auto const& [category, threshold] : profile->thresholdMap()) {
        auto [entry, added] = loaded->maxThresholdMap.try_emplace(category, threshold);
        entry->second = std::max(entry->second, threshold);
      }
    }
    _kept.push_back(std::move(loaded));
    _loaded.store(_kept.back().get(), std::memory_order_release);
  } catch (...) {
    fn::unhandledException();
  }
  fn::logging::CategoryManager::instance().updateThresholds();
}

void LoggingProfileSink::logMessage(fn::logging::Category const& category,
                                    fn::logging::Message const& message) {
  bool verbose = allowVerboseLogging();
  for (auto const& profile : loaded().profiles) {
    if (profile->enabled() && (verbose || !profile->verbose()))
      profile->log(category, message);
  }
}

int LoggingProfileSink::threshold(fn::logging::Category const& category) const {
  Loaded const& current = loaded();
  for (auto const* at = &category; at; at = at->parent()) {
    if (auto found = current.maxThresholdMap.find(at->name());
        found != current.maxThresholdMap.end())
      return found->second;
  }
  return current.maxRootThreshold;
}

void LoggingProfileSink::setAllowVerboseLogging(bool allow) {
  _allowVerboseLogging.store(allow, std::memory_order_relaxed);
}

fn::ObjectVector<LoggingProfile> const& LoggingProfileSink::profiles() const {
  return loaded().profiles;
}

bool LoggingProfileSink::hasConsoleProfile() const {
  for (auto const& profile : profiles()) {
    if (profile->fileName().toLowerCase().startsWith(CONSOLE))
      return true;
  }
  return false;
}

Priority LoggingProfileSink::maxRootThreshold() const {
  return loaded().maxRootThreshold;
}

LoggingProfile::ThresholdMap const& LoggingProfileSink::maxThresholdMap() const {
  return loaded().maxThresholdMap;
}

fn::AutoPtr<LoggingProfileSink> loggingProfileSink() {
  std::lock_guard lock(processSink().mutex);
  return processSink().sink;
}

fn::AutoPtr<LoggingProfileSink> initLoggingProfiles(fn::String const& logName) {
  auto& process = processSink();
  std::lock_guard lock(process.mutex);
  if (process.sink)
    return process.sink;

  // While the profiles load, errors and warnings go to standard error once: the console sink
  // steps aside for the fallback.
  auto& manager = fn::logging::CategoryManager::instance();
  fn::AutoPtr<fn::logging::Sink> console = manager.consoleSink();
  auto fallback = fn::makeAuto<FallbackSink>();
  manager.unregisterSink(console.get());
  manager.registerSink(fallback);

  auto sink = fn::makeAuto<LoggingProfileSink>(logName);
  process.sink = sink;
  fn::String directory = fn::PathManager::instance().getPath(fn::PathManager::APPLICATION_DATA,
                                                             LoggingProfileSink::PROFILE_DIRECTORY);
  try {
    // A process without profiles simply has none; a missing folder is no error.
    fn::File(directory).createDirectories(0700);
  } catch (...) {
    fn::unhandledException();
  }
  sink->reload(directory);

  manager.unregisterSink(fallback.get());
  manager.registerSink(sink);
  if (!sink->hasConsoleProfile())
    manager.registerSink(console);

  if (!fn::RunLoop::currentLoop()) {
    logProfiles.log(fn::logging::WRN,
                    "Logging profiles of {} set up without a run loop: verbose logging will not "
                    "follow the message bus",
                    logName);
    return sink;
  }
  fn::MessageBus& bus = fn::MessageBus::instance();
  fn::WeakReference<LoggingProfileSink> weak(sink);
  auto apply = [weak](fn::Value const& body) {
    auto target = weak.lock();
    if (!target)
      return;
    try {
      target->setAllowVerboseLogging(body.asBool());
    } catch (...) {
      fn::unhandledException();
    }
  };
  if (auto sticky = bus.getStickyMessage(LoggingProfileSink::ALLOW_VERBOSE_LOGGING))
    apply(*sticky);
  bus.listen(LoggingProfileSink::ALLOW_VERBOSE_LOGGING,
             [apply](fn::String const& name, fn::Value const& body) {
               if (name == LoggingProfileSink::ALLOW_VERBOSE_LOGGING)
                 apply(body);
             })
      .detach();
  return sink;
}

void setEnableVerboseLogging(bool enabled) {
  fn::MessageBus::instance().post(LoggingProfileSink::ALLOW_VERBOSE_LOGGING, fn::Value(enabled),
                                  true);
}

}  // namespace core

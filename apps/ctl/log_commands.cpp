// log: this process's logging profiles, the log archive, and verbose logging in every process.

#include <fmt/format.h>

#include "commands.h"
#include "core/app_info.h"
#include "core/ipc/message_bus.h"
#include "core/log_archive.h"
#include "core/logging_profile_sink.h"
#include "foundation/environment.h"
#include "output.h"
#include "remote_service.h"
#include "value_json.h"

namespace ctl {
namespace {

constexpr fn::Duration LOOKUP_GRACE = fn::Duration::seconds(2);
constexpr char const* DEFAULT_CATEGORY = "ctl";

[[noreturn]] void usageError(fn::String const& problem) {
  throw Failure(EXIT_USAGE, problem + " (see lumaren-ctl --help)");
}

void expectArguments(Options const& options, size_t count) {
  if (options.arguments.size() != count)
    usageError(fmt::format("wrong number of arguments for log {}", options.arguments[0]));
}

int runVerbose(Session& session, Options const& options) {
  expectArguments(options, 2);
  fn::String const& state = options.arguments[1];
  if (state != "on" && state != "off")
    usageError(fmt::format("log verbose wants on or off, not \"{}\"", state));
  bool enabled = state == "on";

  session.connect();
  fn::AutoPtr<ipc::MessageBus> bus;
  try {
    bus = session.await(ipc::MessageBus::lookup(session.worker(), session.timeout()),
                        session.timeout() + LOOKUP_GRACE,
                        "the registry did not answer the lookup of the message bus");
  } catch (fn::Exception const&) {
    failLookup(std::current_exception());
  }
  // The switch travels like any process's: through the process-wide bus, which now goes
  // through the hub. Done once the hub relayed it back.
  ipc::MessageBus::setProcessBus(bus);
  bool relayed = false;
  fn::Handle listening = bus->listen(core::LoggingProfileSink::ALLOW_VERBOSE_LOGGING,
                                     [&](fn::String const&, fn::Value const& body) {
                                       relayed =
                                           relayed || (body.isBool() && body.asBool() == enabled);
                                     });
  core::setEnableVerboseLogging(enabled);
  try {
    session.waitFor(
        session.timeout(), [&] { return relayed; },
        fmt::format("the hub did not relay the switch within {} s",
                    session.timeout().totalSeconds()));
  } catch (...) {
    ipc::MessageBus::setProcessBus(nullptr);
    throw;
  }
  ipc::MessageBus::setProcessBus(nullptr);
  return EXIT_OK;
}

int runArchive(Options const& options) {
  expectArguments(options, 1);
  // Archives are named after the product; outside the application's processes that is the
  // default one.
  if (!fn::Environment::has(core::AppInfo::APP_TYPE_VARIABLE))
    core::AppInfo::initialize(core::AppInfo::App::LUMAREN);
  // The archive's own error line is the reason to show.
  if (!fn::Environment::has("LUMAREN_LOG"))
    fn::logging::CategoryManager::instance().setThreshold("core.logArchive", fn::logging::ERR);
  fn::String path = core::LogArchive::createLogArchive();
  if (path.empty())
    throw Failure(EXIT_CALL_FAILED, "the log archive could not be made");
  printLine(stdout, path);
  return EXIT_OK;
}

int runWrite(Options const& options) {
  if (options.arguments.size() < 2)
    usageError("log write wants a text");
  fn::String text;
  for (size_t i = 1; i < options.arguments.size(); ++i)
    text += (i > 1 ? " " : "") + options.arguments[i];
  fn::logging::Category category(options.category.empty() ? DEFAULT_CATEGORY : options.category);
  category.write(fn::logging::Message(options.priority, text, options.tag));
  return EXIT_OK;
}

int runProfiles(Options const& options) {
  expectArguments(options, 1);
  auto sink = core::loggingProfileSink();
  for (auto const& profile : sink->profiles()) {
    fn::String file = sink->logFilePath(profile->fileName());
    printLine(stdout, toJson(fn::Value::map({
                          {"profile", profile->fileName()},
                          {"name", profile->name()},
                          {"enabled", profile->enabled()},
                          {"verbose", profile->verbose()},
                          {"simple", profile->simple()},
                          {"threshold", profile->rootThreshold()},
                          {"output", file.empty() ? fn::String("standard error") : file},
                      })));
  }
  return EXIT_OK;
}

}  // namespace

bool logNeedsHub(Options const& options) {
  return options.arguments.empty() || options.arguments[0] == "verbose";
}

int runLog(Session& session, Options const& options) {
  fn::String const& action = options.arguments.at(0);
  if (action != "write" &&
      (!options.category.empty() || !options.tag.empty() || options.priority != fn::logging::INF))
    usageError("--category, --priority and --tag go with log write only");
  if (action == "verbose")
    return runVerbose(session, options);
  if (action == "archive")
    return runArchive(options);
  if (action == "write")
    return runWrite(options);
  if (action == "profiles")
    return runProfiles(options);
  usageError(fmt::format("unknown log action \"{}\"", action));
}

}  // namespace ctl

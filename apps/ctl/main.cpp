// lumaren-ctl: a command-line client for people working on a running hub. It joins the hub as
// a worker, does one command and leaves. See USAGE in options.cpp and docs/lumaren-ctl.md.

#include <uv.h>

#include <csignal>
#include <cstdio>

#include "commands.h"
#include "core/logging_profile_sink.h"
#include "failure.h"
#include "foundation/environment.h"
#include "foundation/logging/category.h"
#include "options.h"
#include "output.h"
#include "session.h"

namespace {

int runCommand(ctl::Session& session, ctl::Options const& options) {
  using Runner = int (*)(ctl::Session&, ctl::Options const&);
  struct Entry {
    std::string_view name;
    Runner run;
  };
  static constexpr Entry RUNNERS[] = {
      {"lookup", ctl::runLookup},
      {"call", ctl::runCall},
      {"post", ctl::runPost},
      {"watch", ctl::runWatch},
      {"inspectors", ctl::runInspectors},
      {"inspect", ctl::runInspect},
      {"log", ctl::runLog},
  };
  for (auto const& entry : RUNNERS) {
    if (entry.name == options.command)
      return entry.run(session, options);
  }
  throw ctl::Failure(ctl::EXIT_USAGE, "unknown command \"" + options.command + "\"");
}

/// Commands that need no hub run on the default loop, which the services they use live on;
/// -1 when `options` names none of them.
int runStandalone(ctl::Options const& options) {
  using Runner = int (*)(fn::uv::Loop&, ctl::Options const&);
  static constexpr std::pair<std::string_view, Runner> RUNNERS[] = {
      {"command", ctl::runCommandPipe},
      {"network-signature", ctl::runNetworkSignature},
      {"hash", [](fn::uv::Loop&, ctl::Options const& options) { return ctl::runHash(options); }},
  };
  for (auto const& [name, run] : RUNNERS) {
    if (name == options.command)
      return run(fn::uv::Loop::defaultLoop(), options);
  }
  return -1;
}

void reportFailure(ctl::Failure const& failure) {
  ctl::printLine(stderr, "lumaren-ctl: " + fn::String(failure.what()));
}

/// Lets the closes of the worker's handles complete before the loop goes.
void drain(fn::uv::Loop& loop) {
  for (int i = 0; i < 16 && uv_loop_alive(loop.raw()); ++i)
    uv_run(loop.raw(), UV_RUN_NOWAIT);
}

}  // namespace

int main(int argc, char** argv) {
  ctl::Options options;
  try {
    options = ctl::parseOptions(argc, argv);
  } catch (ctl::Failure const& failure) {
    reportFailure(failure);
    return failure.code();
  }
  if (options.help) {
    std::fputs(ctl::USAGE, stdout);
    return ctl::EXIT_OK;
  }
  // The framework's log lines would bury the one line a user needs; LUMAREN_LOG brings
  // them back for debugging.
  if (!fn::Environment::has("LUMAREN_LOG"))
    fn::logging::CategoryManager::instance().setThreshold("*", 0);

  try {
    if (int status = runStandalone(options); status >= 0)
      return status;
  } catch (ctl::Failure const& failure) {
    reportFailure(failure);
    return failure.code();
  } catch (fn::Exception const& e) {
    ctl::printLine(stderr, "lumaren-ctl: " + e.toString());
    return ctl::EXIT_CALL_FAILED;
  }

  fn::uv::Loop loop;
  core::initLoggingProfiles("lumaren-ctl");
  int status = ctl::EXIT_OK;
  try {
    bool needsHub = options.command != "log" || ctl::logNeedsHub(options);
    ctl::Session session(loop, needsHub ? ctl::resolvePipePath(options) : fn::String(),
                         options.timeout);
    status = runCommand(session, options);
  } catch (ctl::Failure const& failure) {
    reportFailure(failure);
    status = failure.code();
  } catch (fn::Exception const& e) {
    ctl::printLine(stderr, "lumaren-ctl: " + e.toString());
    status = ctl::EXIT_CALL_FAILED;
  }
  drain(loop);
  return status;
}

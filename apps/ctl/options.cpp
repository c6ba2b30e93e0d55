#include "options.h"

#include <fmt/format.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string_view>

#include "core/ipc/pipe_path.h"
#include "failure.h"
#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/file.h"

namespace ctl {

char const* const USAGE = R"(usage: lumaren-ctl [OPTIONS] COMMAND [ARGUMENTS]

Works with a running lumaren hub: finds services, calls their methods, posts and watches bus
messages and browses inspectors. Values are read and printed as JSON.

Commands:
  lookup CLASS                 print the registered instance of CLASS
  call CLASS METHOD [JSON]     call METHOD of the instance of CLASS with the argument JSON
                               (null when left out) and print the result
  post NAMESPACE [JSON] [--sticky]
                               post a bus message and wait until the hub relayed it
  watch NAMESPACE [--count N]  print the messages of NAMESPACE, the kept sticky one first,
                               one JSON line each, until N messages or Ctrl-C
  inspectors                   list the registered inspectors: key and name
  workers                      list the workers connected to the hub, one JSON line each
  list                         list the registry's entries, one JSON line each
  monitor [--worker ID] [--object ID]
                               print each record the hub receives, live, one line each,
                               from or to worker ID or concerning object ID when given,
                               until Ctrl-C
  inspect KEY [ACTION_JSON] [--follow N]... [-i]
                               show what the inspector KEY answers to ACTION_JSON; --follow
                               takes the action of item N, -i reads item numbers from stdin
  hash FILE...                 print the resource hash of each FILE, as sha1sum prints; this
                               needs no hub, and exits with 1 if a file cannot be read
  command JSON                 hand the command JSON to the running instance of this user
                               through the command pipe (no hub pipe needed)
  network-signature [--watch]  print the signature of the network this machine is on, and
                               with --watch every change of it until Ctrl-C
  log verbose on|off           allow or stop the verbose logging profiles of every process
  log archive                  pack the log files into a ZIP archive and print its path
  log write [--category NAME] [--priority N] [--tag TAG] TEXT...
                               log one message through this process's logging profiles
                               (category ctl, priority 4 unless given)
  log profiles                 list this process's active logging profiles and their files

Options:
  --pipe PATH         the hub's pipe
  --pipe-file FILE    a file holding the hub's pipe path (lumaren-hub --pipe-file)
                      Without either: $LUMAREN_PIPE, else the file the hub writes by default.
  --timeout SECONDS   limit for connecting, each lookup and each call (default 5)
  -h, --help          this text

Exit status: 0 done, 1 the call failed (its error on stderr as JSON), 2 usage, 3 bad JSON
argument, 4 no hub, 5 the hub went away, 6 no such class or inspector, 7 no answer in time.
)";

namespace {

struct Command {
  std::string_view name;
  size_t minArguments;
  size_t maxArguments;
};

constexpr Command COMMANDS[] = {
    {"lookup", 1, 1},      {"call", 2, 3},       {"post", 1, 2},    {"watch", 1, 1},
    {"inspectors", 0, 0},  {"inspect", 1, 2},    {"command", 1, 1}, {"network-signature", 0, 0},
    {"hash", 1, SIZE_MAX}, {"log", 1, SIZE_MAX}, {"workers", 0, 0}, {"list", 0, 0},
    {"monitor", 0, 0},
};

[[noreturn]] void usageError(fn::String const& problem) {
  throw Failure(EXIT_USAGE, problem + " (see lumaren-ctl --help)");
}

double parseSeconds(std::string_view option, fn::String const& text) {
  char* end = nullptr;
  errno = 0;
  double seconds = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(seconds) || seconds <= 0 ||
      seconds > 1e6)
    usageError(fmt::format("{} wants a positive number of seconds, not \"{}\"", option, text));
  return seconds;
}

uint64_t parseCount(std::string_view option, fn::String const& text, uint64_t minimum) {
  auto number = text.toInt();
  if (!number || *number < static_cast<int64_t>(minimum))
    usageError(
        fmt::format("{} wants a whole number of at least {}, not \"{}\"", option, minimum, text));
  return static_cast<uint64_t>(*number);
}

/// Options come before or after the command's arguments; "--" ends them. A lone "-" and
/// negative numbers are arguments (JSON may be "-1").
bool looksLikeOption(std::string_view arg) {
  return arg.size() > 1 && arg[0] == '-' && !(arg[1] >= '0' && arg[1] <= '9');
}

void checkApplies(Options const& options) {
  auto only = [&](bool given, char const* option, std::string_view command) {
    if (given && options.command != command)
      usageError(fmt::format("{} goes with {} only", option, command));
  };
  only(options.sticky, "--sticky", "post");
  only(options.count.has_value(), "--count", "watch");
  only(!options.follow.empty(), "--follow", "inspect");
  only(options.interactive, "--interactive", "inspect");
  only(options.watch, "--watch", "network-signature");
  only(options.worker || options.object, "--worker and --object", "monitor");
  only(!options.category.empty() || !options.tag.empty() || options.priority != 4,
       "--category, --priority and --tag", "log");
}

}  // namespace

Options parseOptions(int argc, char const* const* argv) {
  Options options;
  std::vector<fn::String> positional;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (optionsEnded || !looksLikeOption(arg)) {
      positional.emplace_back(arg);
      continue;
    }
    auto value = [&]() -> fn::String {
      if (i + 1 >= argc)
        usageError(fmt::format("{} wants a value", arg));
      return argv[++i];
    };
    if (arg == "--") {
      optionsEnded = true;
    } else if (arg == "-h" || arg == "--help") {
      options.help = true;
    } else if (arg == "--pipe") {
      options.pipe = value();
    } else if (arg == "--pipe-file") {
      options.pipeFile = value();
    } else if (arg == "--timeout") {
      double seconds = parseSeconds(arg, value());
      options.timeout = fn::Duration::microseconds(std::llround(seconds * 1e6));
    } else if (arg == "--sticky") {
      options.sticky = true;
    } else if (arg == "--count") {
      options.count = parseCount(arg, value(), 1);
    } else if (arg == "--follow") {
      options.follow.push_back(parseCount(arg, value(), 1));
    } else if (arg == "--worker") {
      options.worker = parseCount(arg, value(), 0);
      if (*options.worker >= 0xFFFF)
        usageError("--worker wants a worker id below 65535");
    } else if (arg == "--object") {
      options.object = parseCount(arg, value(), 0);
    } else if (arg == "--watch") {
      options.watch = true;
    } else if (arg == "-i" || arg == "--interactive") {
      options.interactive = true;
    } else if (arg == "--category") {
      options.category = value();
    } else if (arg == "--priority") {
      uint64_t priority = parseCount(arg, value(), 1);
      if (priority > 7)
        usageError("--priority wants a number from 1 (ERR) to 7 (TRC)");
      options.priority = static_cast<int>(priority);
    } else if (arg == "--tag") {
      options.tag = value();
    } else {
      usageError(fmt::format("unknown option {}", arg));
    }
  }
  if (options.help)
    return options;
  if (positional.empty())
    usageError("no command given");
  options.command = positional.front();
  options.arguments.assign(positional.begin() + 1, positional.end());

  Command const* command = nullptr;
  for (auto const& known : COMMANDS) {
    if (known.name == options.command)
      command = &known;
  }
  if (!command)
    usageError(fmt::format("unknown command \"{}\"", options.command));
  size_t count = options.arguments.size();
  if (count < command->minArguments || count > command->maxArguments)
    usageError(fmt::format("wrong number of arguments for {}", options.command));
  if (!options.pipe.empty() && !options.pipeFile.empty())
    usageError("give --pipe or --pipe-file, not both");
  checkApplies(options);
  return options;
}

fn::String resolvePipePath(Options const& options) {
  if (!options.pipe.empty())
    return options.pipe;
  if (options.pipeFile.empty() && fn::Environment::has("LUMAREN_PIPE"))
    return fn::Environment::get("LUMAREN_PIPE");
  fn::String file = options.pipeFile;
  if (file.empty()) {
    try {
      file = ipc::defaultPipeFile();
    } catch (fn::Exception const& e) {
      throw Failure(EXIT_NO_HUB, "cannot find the hub: " + e.toString());
    }
  }
  if (!fn::File(file).exists()) {
    throw Failure(EXIT_NO_HUB,
                  fmt::format("cannot find the hub: there is no pipe file {}{}", file,
                              options.pipeFile.empty() ? " (is lumaren-hub running? --pipe "
                                                         "gives its pipe)"
                                                       : ""));
  }
  fn::String path;
  try {
    path = fn::String(fn::File(file).readAll().view()).trim();
  } catch (fn::Exception const& e) {
    throw Failure(EXIT_NO_HUB, fmt::format("cannot read the pipe file {}: {}", file, e.message()));
  }
  if (path.empty())
    throw Failure(EXIT_NO_HUB, fmt::format("the pipe file {} is empty", file));
  return path;
}

}  // namespace ctl

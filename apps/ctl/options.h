#pragma once

// The command line of lumaren-ctl and where it finds the hub.

#include <optional>
#include <vector>

#include "foundation/duration.h"
#include "foundation/string.h"

namespace ctl {

inline constexpr fn::Duration DEFAULT_TIMEOUT = fn::Duration::seconds(5);

struct Options {
  bool help = false;
  fn::String pipe;
  fn::String pipeFile;
  fn::Duration timeout = DEFAULT_TIMEOUT;
  /// The command and its own arguments (CLASS, METHOD, JSON, ...).
  fn::String command;
  std::vector<fn::String> arguments;
  bool sticky = false;
  std::optional<uint64_t> count;
  /// Item numbers to follow, in order.
  std::vector<size_t> follow;
  bool interactive = false;
  bool watch = false;
  /// monitor: only records from or to this worker, or concerning this object.
  std::optional<uint64_t> worker;
  std::optional<uint64_t> object;
  /// log write: the category, priority and tag of the message.
  fn::String category;
  int priority = 4;
  fn::String tag;
};

/// Reads the command line. Failure(EXIT_USAGE) for an unknown command or option, a missing or
/// malformed value, or an option the command does not take.
Options parseOptions(int argc, char const* const* argv);

/// The text of --help.
extern char const* const USAGE;

/// The pipe to connect to: --pipe, the path in --pipe-file, $LUMAREN_PIPE, or the path in
/// the hub's default pipe file. Failure(EXIT_NO_HUB) when a pipe file cannot be read.
fn::String resolvePipePath(Options const& options);

}  // namespace ctl

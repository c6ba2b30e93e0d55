// command and network-signature: the services of the user's machine that need no hub.

#include <fmt/format.h>

#include "commands.h"
#include "core/command_ipc.h"
#include "core/network_signature.h"
#include "interrupt.h"
#include "output.h"
#include "value_json.h"

namespace ctl {

int runCommandPipe(fn::uv::Loop& loop, Options const& options) {
  fn::Value command = jsonArgument(options.arguments.at(0), "command");
  std::optional<bool> delivered;
  core::CommandIPC::send(std::move(command), [&](bool ok) { delivered = ok; });
  loop.runUntil([&] { return delivered.has_value(); });
  if (!delivered.value_or(false))
    throw Failure(EXIT_NO_HUB, fmt::format("no running instance takes commands at {}",
                                           core::CommandIPC::pipePath()));
  return EXIT_OK;
}

int runNetworkSignature(fn::uv::Loop& loop, Options const& options) {
  auto& signature = core::NetworkSignature::instance();
  printLine(stdout, signature.get());
  if (!options.watch)
    return EXIT_OK;
  Interrupt interrupt(loop);
  fn::Handle listening =
      signature.addChangeListener([](fn::String const& changed) { printLine(stdout, changed); });
  loop.runUntil([&] { return interrupt.fired(); });
  return EXIT_OK;
}

}  // namespace ctl

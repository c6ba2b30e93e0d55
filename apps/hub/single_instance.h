#pragma once

// One hub per user. The first hub takes the process lock "lumaren-hub" and listens on the
// user's command pipe; it posts every command it receives on the message bus (namespace
// "lumaren.command"), so that modules can act on it. A later hub of the same user starts no
// second system: it hands its command line to the running one and ends.
//
// A command line travels as {"arguments": [every argument after the program name],
// "workingDirectory": the directory it was started in}.

#include <vector>

#include "core/command_ipc.h"
#include "core/ipc/message_bus.h"
#include "core/ipc/worker.h"
#include "foundation/uv/loop.h"

namespace hub {

inline constexpr char const* LOCK_NAME = "lumaren-hub";
inline constexpr char const* COMMAND_NAMESPACE = "lumaren.command";

/// The command value for `argc`/`argv`.
fn::Value commandLineValue(int argc, char** argv);

/// Sends the command line to the running hub; the exit status of this hub: 0 when it was
/// handed over (a line on standard output says so), 1 when the running hub could not be
/// reached.
int handOffToRunningHub(fn::uv::Loop& loop, int argc, char** argv);

/// Binds the command pipe and relays what arrives to the bus of `worker` (the hub's own). A
/// command that arrives before the bus was found waits for it. Loop thread only.
class CommandRelay {
public:
  explicit CommandRelay(ipc::Worker& worker);
  ~CommandRelay();
  CommandRelay(CommandRelay const&) = delete;
  CommandRelay& operator=(CommandRelay const&) = delete;

private:
  void lookUpBus();
  void relay(fn::Value const& command);

  ipc::Worker& _worker;
  fn::AutoPtr<core::CommandIPC> _pipe;
  fn::Handle _received;
  fn::AutoPtr<ipc::MessageBus> _bus;
  std::vector<fn::Value> _waiting;
  // Cancelled with the relay, so that a late answer finds nobody.
  fn::Promise<fn::AutoPtr<ipc::MessageBus>> _lookup;
  fn::Handle _retry;
};

}  // namespace hub

#pragma once

// core::CommandIPC: the per-user command pipe through which a second start of the application
// hands its command (an fn::Value) to the instance that already runs.
//
// The running instance creates a CommandIPC, connects to onCommand() and calls bind(); any
// other process of the same user calls the static send(). Each command is one frame in the
// hub's framing (a 4-byte little-endian length, then the MessagePack body); there is no reply.
// The pipe is a local socket "lumaren-command-ipc.<user>" in the user's private runtime
// directory, so instances of different users never see each other.
//
// Reference counted: hold the server in an fn::AutoPtr (fn::makeAuto<CommandIPC>()), since its
// connections find it through a weak reference. Loop-bound: created, bound, stopped and
// destroyed on the main thread, whose loop serves the connections; onCommand fires there,
// once per command, in the order a client sent them. A connection that sends a malformed
// frame (or one over MAX_COMMAND_SIZE) is closed; other connections go on. stop() and
// destruction close the listening socket and every connection.

#include <set>

#include "core/export.h"
#include "foundation/object.h"
#include "foundation/signal.h"
#include "foundation/string.h"
#include "foundation/uv/pipe_stream.h"
#include "foundation/value.h"

namespace core {

class Connection;

class CORE_EXPORT CommandIPC : public fn::RefCountedObject {
public:
  /// The largest command accepted: a frame body above it ends its connection.
  static constexpr size_t MAX_COMMAND_SIZE = 1024 * 1024;

  CommandIPC();
  ~CommandIPC() override;

  fn::Signal<fn::Value>& onCommand() { return _onCommand; }

  /// Listens on the pipe. A file already at the pipe's path (a socket left by an instance that
  /// died, say) is moved aside first and put back by stop(). Throws the foundation's libuv
  /// exception when the socket cannot be bound.
  void bind();
  /// Stops listening, closes the connections and restores a file that bind() moved aside.
  void stop();

  /// Connects to the current user's pipe, writes `command` as one frame and disconnects;
  /// `done` runs exactly once on the calling thread's loop when that is over, whether it worked
  /// or not. A failure is logged as "CommandIPC failed: <reason>". Main thread only; nothing
  /// needs to be kept alive by the caller.
  static void send(fn::Value command, std::move_only_function<void()> done);
  /// The same; `done` learns whether the command was handed to the pipe.
  static void send(fn::Value command, std::move_only_function<void(bool delivered)> done);

  /// The pipe's path for the current user.
  static fn::String pipePath();

private:
  friend class Connection;
  void received(fn::Value const& command);
  void closed(Connection* connection);

  fn::Signal<fn::Value> _onCommand;
  fn::AutoPtr<fn::uv::PipeStream> _pipe;
  fn::String _backupPath;
  std::set<fn::AutoPtr<Connection>> _connections;
};

}  // namespace core

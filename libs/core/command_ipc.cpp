#include "core/command_ipc.h"

#include "core/ipc/message_helper.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/logging/category.h"
#include "foundation/run_loop.h"
#include "foundation/uuid.h"
#include "foundation/uv/loop.h"

namespace core {
namespace {

fn::logging::Category logCommandIPC("core.commandIPC");

constexpr int BACKLOG = 128;

fn::uv::Loop& currentLoop() {
  FN_ASSERT_LOOP_THREAD();
  fn::RunLoop* loop = fn::RunLoop::currentLoop();
  return loop ? loop->uvLoop() : fn::uv::Loop::defaultLoop();
}

// One send: keeps itself alive from connect until `done` ran.
class IPCSender : public fn::RefCountedObject {
public:
  using Done = std::move_only_function<void(bool)>;

  IPCSender(fn::uv::Loop& loop, fn::Value command, Done done)
      : _command(std::move(command)),
        _done(std::move(done)),
        _stream(fn::uv::PipeStream::create(loop)) {}

  /// Ends without trying: `done` learns of the failure from the loop, not inside send().
  void abandon(fn::uv::Loop& loop) {
    fn::AutoPtr<IPCSender> self(this);
    loop.post([self] {
      self->_stream->close();
      if (auto done = std::exchange(self->_done, nullptr))
        done(false);
    });
  }

  void start(fn::String const& path) {
    fn::AutoPtr<IPCSender> self(this);
    _stream->connect(path, [self](fn::uv::Status status) {
      if (!status) {
        self->finish(status);
        return;
      }
      ipc::MessageWriter::write(*self->_stream, self->_command,
                                [self](fn::uv::Status written) { self->finish(written); });
    });
  }

private:
  void finish(fn::uv::Status const& status) {
    if (!status)
      logCommandIPC.log(fn::logging::ERR, "CommandIPC failed: {}", status.toString());
    _stream->close();
    if (auto done = std::exchange(_done, nullptr))
      done(status.ok());
  }

  fn::Value _command;
  Done _done;
  fn::AutoPtr<fn::uv::PipeStream> _stream;
};

}  // namespace

// One accepted client: its stream and the frame reader over it. Owned by the CommandIPC's
// list until the client closes, the stream fails or a frame is malformed.
class Connection : public fn::RefCountedObject {
public:
  Connection(CommandIPC& owner, fn::AutoPtr<fn::uv::PipeStream> stream)
      : _owner(&owner),
        _stream(std::move(stream)),
        _reader(CommandIPC::MAX_COMMAND_SIZE) {}

  void start() {
    _reader.onMessage([this](fn::Value record, size_t) {
      if (auto owner = _owner.lock())
        owner->received(record);
    });
    _reader.onEndOfStream([this] { end(); });
    _reader.onError([this](fn::uv::Status const& status) {
      logCommandIPC.log(fn::logging::WRN, "CommandIPC closed a connection: {}", status.toString());
      end();
    });
    fn::AutoPtr<Connection> self(this);
    _stream->readStart([self](char const* bytes, ssize_t count) {
      // A receiver of the signal may stop the pipe, which drops this connection.
      fn::AutoPtr<Connection> protect = self;
      protect->_reader.feed(bytes, count);
    });
  }

  void close() {
    _reader.stop();
    _stream->close();
  }

private:
  void end() {
    close();
    if (auto owner = _owner.lock())
      owner->closed(this);
  }

  fn::WeakReference<CommandIPC> _owner;
  fn::AutoPtr<fn::uv::PipeStream> _stream;
  ipc::MessageReader _reader;
};

CommandIPC::CommandIPC() = default;

CommandIPC::~CommandIPC() {
  stop();
}

void CommandIPC::bind() {
  fn::uv::Loop& loop = currentLoop();
  if (_pipe)
    stop();
  _pipe = fn::uv::PipeStream::create(loop);
  fn::String path = pipePath();
  // A socket file of an instance that is gone would make the bind fail. Whatever is there is
  // kept aside and put back by stop(); failing to move it only means the bind may fail.
  try {
    if (fn::File(path).exists()) {
      fn::String backup =
          path + ".bk-" + fn::UUIDGenerator::defaultGenerator().createOne().toString();
      fn::File(path).moveTo(backup);
      _backupPath = backup;
    }
  } catch (fn::Exception const&) {
  }
  _pipe->bind(path).throwOnError();
  fn::WeakReference<CommandIPC> weak(this);
  _pipe
      ->listen(BACKLOG,
               [weak, &loop](fn::uv::Status status) {
                 auto self = weak.lock();
                 if (!self || !self->_pipe)
                   return;
                 status.throwOnError();
                 auto client = fn::uv::PipeStream::create(loop);
                 self->_pipe->accept(*client).throwOnError();
                 // The directory is private to the user already; this holds where it is not.
                 if (!client->peerIsSameUser()) {
                   logCommandIPC.log(fn::logging::WRN,
                                     "CommandIPC refused a connection from another user");
                   client->close();
                   return;
                 }
                 auto connection = fn::makeAuto<Connection>(*self, client);
                 self->_connections.insert(connection);
                 connection->start();
               })
      .throwOnError();
}

void CommandIPC::stop() {
  auto connections = std::move(_connections);
  _connections.clear();
  for (auto const& connection : connections)
    connection->close();
  if (!_pipe)
    return;
  _pipe->close();
  _pipe.reset();
  if (_backupPath.empty())
    return;
  try {
    fn::String path = pipePath();
    fn::File(path).remove();
    fn::File(_backupPath).moveTo(path);
  } catch (fn::Exception const&) {
  }
  _backupPath.clear();
}

void CommandIPC::received(fn::Value const& command) {
  // One receiver's failure must neither end the connection nor keep the others from hearing
  // the command.
  try {
    _onCommand.emit(command);
  } catch (...) {
    fn::unhandledException();
  }
}

void CommandIPC::closed(Connection* connection) {
  _connections.erase(fn::AutoPtr<Connection>(connection));
}

void CommandIPC::send(fn::Value command, std::move_only_function<void()> done) {
  send(std::move(command), [done = std::move(done)](bool) mutable { done(); });
}

void CommandIPC::send(fn::Value command, std::move_only_function<void(bool delivered)> done) {
  fn::uv::Loop& loop = currentLoop();
  auto sender = fn::makeAuto<IPCSender>(loop, std::move(command), std::move(done));
  fn::String path;
  try {
    path = pipePath();
  } catch (fn::Exception const& e) {
    // Without a runtime directory nothing can listen.
    logCommandIPC.log(fn::logging::ERR, "CommandIPC failed: {}", e.toString());
    sender->abandon(loop);
    return;
  }
  sender->start(path);
}

}  // namespace core

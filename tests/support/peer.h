#pragma once

// A peer process for end-to-end tests: the test executable runs itself again as a byte relay
// between its standard input and output and the hub's pipe. What the test sends goes to the hub
// verbatim (whole frames, half frames, garbage); every frame the hub sends comes back to the test
// as a record. The relay answers PINGs itself unless told not to, and quits when either side
// closes. So the hub deals with a real separate process that tests can kill or stop.

#include <deque>
#include <functional>
#include <memory>

#include "child_process.h"
#include "foundation/uv/pipe_stream.h"
#include "foundation/value.h"
#include "loop_runner.h"

namespace testing_support {

struct PeerOptions {
  bool answerPings = true;
  /// Switch to the user "nobody" before connecting (only possible as root).
  bool asNobody = false;
};

class Peer {
public:
  /// Starts a relay connected to `pipePath`.
  static std::unique_ptr<Peer> start(fn::uv::Loop& loop,
                                     fn::String const& pipePath,
                                     PeerOptions options = {});
  /// Closes the control pipes: the relay closes its hub connection and exits.
  ~Peer();

  void send(fn::Value const& record);
  void sendRaw(fn::ByteArray const& bytes);

  /// Sends HELLO and returns the worker id of the reply (NO_WORKER on failure).
  uint16_t hello(fn::String const& name, fn::String const& tag = "");

  /// Runs the loop until a record matching `match` arrived and returns it (removing it and
  /// every record received before it). Fails the test and returns null after 10 s.
  fn::Value expect(std::function<bool(fn::Value const&)> const& match);
  fn::Value expectType(int type);
  /// The records received and not yet consumed by expect().
  std::deque<fn::Value>& received() { return _received; }

  ChildProcess& process() { return *_process; }

private:
  explicit Peer(fn::uv::Loop& loop) : _loop(loop) {}

  fn::uv::Loop& _loop;
  std::unique_ptr<ChildProcess> _process;
  fn::AutoPtr<fn::uv::PipeStream> _control;
  fn::AutoPtr<fn::uv::PipeStream> _fromRelay;
  std::deque<fn::Value> _received;
  fn::ByteArray _buffer;
};

/// The relay's own main; the test executable calls it when started with "--peer".
int runPeerRelay(int argc, char** argv);

/// Switches the process to the user "nobody"; false where that cannot be done (not root, or
/// Windows).
bool becomeNobody();

}  // namespace testing_support

#pragma once

// A child process whose standard output and error the test reads, for end-to-end tests of
// command-line tools. Both arrive through pipes watched by the test's loop, so a test can
// wait for a line while the child still runs. Standard input is given up front (or empty).
// The child is killed (SIGKILL) when the object goes while it still runs.

#include <memory>
#include <vector>

#include "child_process.h"
#include "foundation/uv/pipe_stream.h"

namespace testing_support {

class CapturedProcess {
public:
  struct Options {
    fn::String file;
    std::vector<fn::String> arguments;
    /// "NAME=value" entries on top of the inherited environment.
    std::vector<fn::String> environment;
    /// Written to the child's standard input, which then ends; at most a pipe's buffer.
    fn::String input;
  };

  static std::unique_ptr<CapturedProcess> start(fn::uv::Loop& loop, Options const& options);
  ~CapturedProcess();

  /// Runs the loop until the child exited and closed both outputs; its exit status, or
  /// -signal if it was killed. Fails the test after `timeout`.
  int64_t waitForExit(fn::Duration timeout = fn::Duration::seconds(20));
  bool finished() const { return _child->exited() && _outputsOpen == 0; }
  int pid() const { return _child->pid(); }
  void kill(int signal) { _child->kill(signal); }

  fn::String const& out() const { return _out; }
  fn::String const& err() const { return _err; }

private:
  explicit CapturedProcess(fn::uv::Loop& loop) : _loop(loop) {}
  void capture(int fd, fn::String& into);

  fn::uv::Loop& _loop;
  std::unique_ptr<ChildProcess> _child;
  std::vector<fn::AutoPtr<fn::uv::PipeStream>> _outputs;
  int _outputsOpen = 0;
  fn::String _out;
  fn::String _err;
};

/// Whether process `pid` is gone, or a zombie nobody reaped yet: either way it runs no more.
bool processEnded(int pid);

}  // namespace testing_support

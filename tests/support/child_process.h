#pragma once

// A child process of an end-to-end test: a command-line tool under test, or the test
// executable started again in one of its roles (child_role.h). Its exit is tracked on the
// test's loop, and it is killed (SIGKILL) and reaped when the object goes while it still runs,
// so no test leaves a process behind. On request its standard output and error arrive through
// pipes watched by the loop, so a test can wait for a line while the child still runs; its
// standard input is then given up front (or empty).

#include <memory>
#include <vector>

#include "foundation/duration.h"
#include "foundation/uv/loop.h"
#include "foundation/uv/pipe_stream.h"
#include "foundation/uv/process.h"

namespace testing_support {

class ChildProcess {
public:
  struct Options {
    fn::String file{};
    std::vector<fn::String> arguments{};
    /// "NAME=value" entries on top of the inherited environment.
    std::vector<fn::String> environment{};
    /// Capture standard output and error; standard input is then `input`, at most a pipe's
    /// buffer.
    bool capture = false;
    fn::String input{};
    /// Without `capture`: descriptors that become the child's standard input and output.
    int standardInput = -1;
    int standardOutput = -1;
  };

  static std::unique_ptr<ChildProcess> start(fn::uv::Loop& loop, Options const& options);
  /// The test executable with `arguments`, the first of which names the role.
  static std::unique_ptr<ChildProcess> startRole(fn::uv::Loop& loop,
                                                 std::vector<fn::String> arguments);
  ~ChildProcess();

  void kill(int signal);
  /// Runs the loop until the process exited and closed the outputs it was given; its exit
  /// status, or -signal if it was killed. Fails the test after `timeout`.
  int64_t waitForExit(fn::Duration timeout = fn::Duration::seconds(20));
  bool exited() const { return _exited; }
  int pid() const { return _process->pid(); }

  fn::String const& out() const { return _out; }
  fn::String const& err() const { return _err; }

private:
  explicit ChildProcess(fn::uv::Loop& loop) : _loop(loop) {}
  void capture(int fd, fn::String& into);

  fn::uv::Loop& _loop;
  fn::AutoPtr<fn::uv::Process> _process;
  bool _exited = false;
  int64_t _status = 0;
  std::vector<fn::AutoPtr<fn::uv::PipeStream>> _outputs;
  int _outputsOpen = 0;
  fn::String _out;
  fn::String _err;
};

/// Whether process `pid` is gone, or a zombie nobody reaped yet: either way it runs no more.
bool processEnded(int pid);

}  // namespace testing_support

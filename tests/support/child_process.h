#pragma once

// A child process of an end-to-end test, usually the test executable started again in one of
// its roles (child_role.h). Its exit is tracked on the test's loop, and it is killed (SIGKILL)
// and reaped when the object goes while it still runs, so no test leaves a process behind.

#include <memory>
#include <vector>

#include "foundation/duration.h"
#include "foundation/uv/loop.h"
#include "foundation/uv/process.h"

namespace testing_support {

class ChildProcess {
public:
  static std::unique_ptr<ChildProcess> spawn(fn::uv::Loop& loop,
                                             fn::uv::Process::Options const& options);
  /// The test executable with `arguments`, the first of which names the role.
  static std::unique_ptr<ChildProcess> startRole(fn::uv::Loop& loop,
                                                 std::vector<fn::String> arguments,
                                                 std::vector<int> extraDescriptors = {});
  ~ChildProcess();

  void kill(int signal);
  /// Runs the loop until the process exited; its exit status, or -signal if it was killed.
  /// Fails the test after `timeout`.
  int64_t waitForExit(fn::Duration timeout = fn::Duration::seconds(10));
  bool exited() const { return _exited; }
  int pid() const { return _process->pid(); }

private:
  explicit ChildProcess(fn::uv::Loop& loop) : _loop(loop) {}

  fn::uv::Loop& _loop;
  fn::AutoPtr<fn::uv::Process> _process;
  bool _exited = false;
  int64_t _status = 0;
};

}  // namespace testing_support

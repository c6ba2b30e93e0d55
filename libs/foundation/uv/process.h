#pragma once

// fn::uv::Process: a child process started through libuv.
//
// Keeps itself alive from spawn until libuv's close callback after the exit; the exit
// callback runs once on the loop thread. Destroying the last AutoPtr does not kill the child.

#include <functional>
#include <vector>

#include "foundation/object.h"
#include "foundation/string.h"
#include "foundation/uv/status.h"

namespace fn::uv {

class Loop;

class FN_EXPORT Process : public RefCountedObject {
public:
  using ExitCallback = std::function<void(int64_t exitStatus, int termSignal)>;

  struct Options {
    String file;
    std::vector<String> arguments;  // without the program name
    /// Extra "NAME=value" entries on top of the inherited environment.
    std::vector<String> environment;
    /// Inherit standard output and error (the default) or discard them.
    bool inheritOutput = true;
    /// Descriptors of this process that become the child's standard input, output and error
    /// instead (-1: no input, and output and error as inheritOutput says).
    int standardInput = -1;
    int standardOutput = -1;
    int standardError = -1;
    /// Descriptors of this process that the child gets as 3, 4, ...
    std::vector<int> extraDescriptors;
    /// The child is ended when this process ends, however it ends. On Windows a job object
    /// does it; elsewhere the child has to ask its system itself (Linux: the parent-death
    /// signal), since nothing can be arranged from the parent's side.
    bool endWithThisProcess = false;
  };

  /// Starts the child; throws UVException when it cannot be started.
  static AutoPtr<Process> spawn(Loop& loop, Options const& options, ExitCallback onExit);

  int pid() const { return _pid; }
  bool exited() const { return _exited; }
  Status kill(int signal);

private:
  Process() = default;
  void endWithThisProcess();

  uv_process_t _process{};
  ExitCallback _onExit;
  int _pid = 0;
  bool _exited = false;
};

/// The path of the running executable.
FN_EXPORT String executablePath();

}  // namespace fn::uv

#include "child_process.h"

#include <gtest/gtest.h>

#include <csignal>

#include "peer.h"

namespace testing_support {

std::unique_ptr<ChildProcess> ChildProcess::spawn(fn::uv::Loop& loop,
                                                  fn::uv::Process::Options const& options) {
  std::unique_ptr<ChildProcess> child(new ChildProcess(loop));
  ChildProcess* raw = child.get();
  child->_process = fn::uv::Process::spawn(loop, options, [raw](int64_t status, int signal) {
    raw->_exited = true;
    raw->_status = signal ? -signal : status;
  });
  return child;
}

std::unique_ptr<ChildProcess> ChildProcess::startRole(fn::uv::Loop& loop,
                                                      std::vector<fn::String> arguments,
                                                      std::vector<int> extraDescriptors) {
  fn::uv::Process::Options options;
  options.file = fn::uv::executablePath();
  options.arguments = std::move(arguments);
  options.extraDescriptors = std::move(extraDescriptors);
  return spawn(loop, options);
}

ChildProcess::~ChildProcess() {
  if (!_exited) {
    kill(SIGKILL);
    waitForExit();
  }
}

void ChildProcess::kill(int signal) {
  if (!_exited)
    _process->kill(signal);
}

int64_t ChildProcess::waitForExit(fn::Duration timeout) {
  if (!runLoopUntil(
          _loop, [this] { return _exited; }, timeout))
    ADD_FAILURE() << "process " << pid() << " did not exit in time";
  return _status;
}

}  // namespace testing_support

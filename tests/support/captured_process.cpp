#include "captured_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "peer.h"

namespace testing_support {
namespace {

struct Pipe {
  int read = -1;
  int write = -1;
  Pipe() {
    int fds[2];
    // Close-on-exec, so that no other child keeps an end open and an output never ends.
    if (::pipe2(fds, O_CLOEXEC) != 0)
      throw std::runtime_error("pipe2 failed");
    read = fds[0];
    write = fds[1];
  }
};

}  // namespace

std::unique_ptr<CapturedProcess> CapturedProcess::start(fn::uv::Loop& loop,
                                                        Options const& options) {
  std::unique_ptr<CapturedProcess> child(new CapturedProcess(loop));
  Pipe input, out, err;
  if (!options.input.empty() && ::write(input.write, options.input.data(), options.input.size()) !=
                                    static_cast<ssize_t>(options.input.size()))
    ADD_FAILURE() << "the input does not fit into a pipe";
  ::close(input.write);

  fn::uv::Process::Options spawn;
  spawn.file = options.file;
  spawn.arguments = options.arguments;
  spawn.environment = options.environment;
  spawn.standardInput = input.read;
  spawn.standardOutput = out.write;
  spawn.standardError = err.write;
  child->_child = ChildProcess::spawn(loop, spawn);
  ::close(input.read);
  ::close(out.write);
  ::close(err.write);
  child->capture(out.read, child->_out);
  child->capture(err.read, child->_err);
  return child;
}

void CapturedProcess::capture(int fd, fn::String& into) {
  auto stream = fn::uv::PipeStream::create(_loop);
  stream->open(fd).throwOnError();
  ++_outputsOpen;
  fn::uv::PipeStream* raw = stream.get();
  stream->readStart([this, raw, &into](char const* bytes, ssize_t count) {
    if (count > 0) {
      into.append(bytes, static_cast<size_t>(count));
    } else if (count < 0) {
      raw->close();
      --_outputsOpen;
    }
  });
  _outputs.push_back(stream);
}

CapturedProcess::~CapturedProcess() {
  _child.reset();
  for (auto& output : _outputs)
    output->close();
}

int64_t CapturedProcess::waitForExit(fn::Duration timeout) {
  if (!runLoopUntil(
          _loop, [this] { return finished(); }, timeout))
    ADD_FAILURE() << "the process did not finish in time; output so far:\n" << _out << _err;
  return _child->waitForExit();
}

bool processEnded(int pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  auto state = line.rfind(") ");
  return ::kill(pid, 0) != 0 || state == std::string::npos || line[state + 2] == 'Z';
}

}  // namespace testing_support

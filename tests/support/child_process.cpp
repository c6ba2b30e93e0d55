#include "child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "loop_runner.h"

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

std::unique_ptr<ChildProcess> ChildProcess::start(fn::uv::Loop& loop, Options const& options) {
  std::unique_ptr<ChildProcess> child(new ChildProcess(loop));
  fn::uv::Process::Options spawn;
  spawn.file = options.file;
  spawn.arguments = options.arguments;
  spawn.environment = options.environment;
  spawn.extraDescriptors = options.extraDescriptors;
  std::optional<Pipe> input, out, err;
  if (options.capture) {
    input.emplace(), out.emplace(), err.emplace();
    if (::write(input->write, options.input.data(), options.input.size()) !=
        static_cast<ssize_t>(options.input.size()))
      ADD_FAILURE() << "the input does not fit into a pipe";
    ::close(input->write);
    spawn.standardInput = input->read;
    spawn.standardOutput = out->write;
    spawn.standardError = err->write;
  }
  ChildProcess* raw = child.get();
  child->_process = fn::uv::Process::spawn(loop, spawn, [raw](int64_t status, int signal) {
    raw->_exited = true;
    raw->_status = signal ? -signal : status;
  });
  if (options.capture) {
    for (int fd : {input->read, out->write, err->write})
      ::close(fd);
    child->capture(out->read, child->_out);
    child->capture(err->read, child->_err);
  }
  return child;
}

std::unique_ptr<ChildProcess> ChildProcess::startRole(fn::uv::Loop& loop,
                                                      std::vector<fn::String> arguments,
                                                      std::vector<int> extraDescriptors) {
  return start(loop, {.file = fn::uv::executablePath(),
                      .arguments = std::move(arguments),
                      .extraDescriptors = std::move(extraDescriptors)});
}

void ChildProcess::capture(int fd, fn::String& into) {
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

ChildProcess::~ChildProcess() {
  if (!_exited) {
    kill(SIGKILL);
    waitForExit();
  }
  for (auto& output : _outputs)
    output->close();
}

void ChildProcess::kill(int signal) {
  if (!_exited)
    _process->kill(signal);
}

int64_t ChildProcess::waitForExit(fn::Duration timeout) {
  if (!runLoopUntil(
          _loop, [this] { return _exited && _outputsOpen == 0; }, timeout))
    ADD_FAILURE() << "process " << pid() << " did not finish in time; output so far:\n"
                  << _out << _err;
  return _status;
}

bool processEnded(int pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  auto state = line.rfind(") ");
  return ::kill(pid, 0) != 0 || state == std::string::npos || line[state + 2] == 'Z';
}

}  // namespace testing_support

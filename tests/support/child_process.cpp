#include "child_process.h"

#include <gtest/gtest.h>
#include <uv.h>

#include <csignal>
#include <fstream>

#include "loop_runner.h"

namespace testing_support {
namespace {

struct Pipe {
  uv_file read = -1;
  uv_file write = -1;
  // `nonBlockingRead`: the end this process reads through its loop.
  explicit Pipe(bool nonBlockingRead = true) {
    uv_file fds[2];
    // Not inherited (close-on-exec), so that no other child keeps an end open and an output
    // never ends.
    if (uv_pipe(fds, nonBlockingRead ? UV_NONBLOCK_PIPE : 0, 0) != 0)
      throw std::runtime_error("uv_pipe failed");
    read = fds[0];
    write = fds[1];
  }
};

void closeFile(uv_file fd) {
  uv_fs_t request;
  uv_fs_close(nullptr, &request, fd, nullptr);
  uv_fs_req_cleanup(&request);
}

bool writeFile(uv_file fd, fn::String const& text) {
  uv_buf_t buffer = uv_buf_init(const_cast<char*>(text.data()), static_cast<unsigned>(text.size()));
  uv_fs_t request;
  int written = uv_fs_write(nullptr, &request, fd, &buffer, 1, -1, nullptr);
  uv_fs_req_cleanup(&request);
  return written == static_cast<int>(text.size());
}

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::start(fn::uv::Loop& loop, Options const& options) {
  std::unique_ptr<ChildProcess> child(new ChildProcess(loop));
  fn::uv::Process::Options spawn;
  spawn.file = options.file;
  spawn.arguments = options.arguments;
  spawn.environment = options.environment;
  spawn.standardInput = options.standardInput;
  spawn.standardOutput = options.standardOutput;
  std::optional<Pipe> input, out, err;
  if (options.capture) {
    input.emplace(false), out.emplace(), err.emplace();
    if (!writeFile(input->write, options.input))
      ADD_FAILURE() << "the input does not fit into a pipe";
    closeFile(input->write);
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
    for (uv_file fd : {input->read, out->write, err->write})
      closeFile(fd);
    child->capture(out->read, child->_out);
    child->capture(err->read, child->_err);
  }
  return child;
}

std::unique_ptr<ChildProcess> ChildProcess::startRole(fn::uv::Loop& loop,
                                                      std::vector<fn::String> arguments) {
  return start(loop, {.file = fn::uv::executablePath(), .arguments = std::move(arguments)});
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
  // No process when the spawn itself failed.
  if (_process && !_exited) {
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
  if (uv_kill(pid, 0) != 0)
    return true;
  // On Linux a child nobody reaped yet still answers; its state tells.
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line))
    return false;
  auto state = line.rfind(") ");
  return state != std::string::npos && line[state + 2] == 'Z';
}

}  // namespace testing_support

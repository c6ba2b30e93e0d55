#include "foundation/uv/process.h"

#include <algorithm>
#include <string_view>

#include "foundation/uv/loop.h"

extern char** environ;

namespace fn::uv {

AutoPtr<Process> Process::spawn(Loop& loop, Options const& options, ExitCallback onExit) {
  AutoPtr<Process> process(new Process());
  process->_onExit = std::move(onExit);

  std::vector<char*> args;
  args.push_back(const_cast<char*>(options.file.c_str()));
  for (auto const& argument : options.arguments)
    args.push_back(const_cast<char*>(argument.c_str()));
  args.push_back(nullptr);

  // The entries given replace inherited ones of the same name: with both, the child would see
  // whichever its lookup meets first.
  auto nameOf = [](std::string_view entry) { return entry.substr(0, entry.find('=')); };
  std::vector<char*> env;
  for (char** e = environ; *e; ++e) {
    bool replaced = std::ranges::any_of(
        options.environment, [&](String const& entry) { return nameOf(entry) == nameOf(*e); });
    if (!replaced)
      env.push_back(*e);
  }
  for (auto const& entry : options.environment)
    env.push_back(const_cast<char*>(entry.c_str()));
  env.push_back(nullptr);

  std::vector<uv_stdio_container_t> stdio(3 + options.extraDescriptors.size());
  int const given[3] = {options.standardInput, options.standardOutput, options.standardError};
  for (int i = 0; i < 3; ++i) {
    if (given[i] >= 0) {
      stdio[i].flags = UV_INHERIT_FD;
      stdio[i].data.fd = given[i];
    } else {
      stdio[i].flags = i > 0 && options.inheritOutput ? UV_INHERIT_FD : UV_IGNORE;
      stdio[i].data.fd = i;
    }
  }
  for (size_t i = 0; i < options.extraDescriptors.size(); ++i) {
    stdio[3 + i].flags = UV_INHERIT_FD;
    stdio[3 + i].data.fd = options.extraDescriptors[i];
  }

  uv_process_options_t uvOptions{};
  uvOptions.file = options.file.c_str();
  uvOptions.args = args.data();
  uvOptions.env = env.data();
  uvOptions.stdio = stdio.data();
  uvOptions.stdio_count = static_cast<int>(stdio.size());
  uvOptions.exit_cb = [](uv_process_t* handle, int64_t status, int signal) {
    auto* self = static_cast<Process*>(handle->data);
    self->_exited = true;
    auto callback = std::move(self->_onExit);
    if (callback)
      guarded([&] { callback(status, signal); });
    uv_close(reinterpret_cast<uv_handle_t*>(handle),
             [](uv_handle_t* h) { static_cast<Process*>(h->data)->release(); });
  };
  process->_process.data = process.get();
  int rc = uv_spawn(loop.raw(), &process->_process, &uvOptions);
  if (rc < 0) {
    // libuv wants the handle closed even when the spawn failed.
    process->retain();
    uv_close(reinterpret_cast<uv_handle_t*>(&process->_process),
             [](uv_handle_t* h) { static_cast<Process*>(h->data)->release(); });
    Status("spawn " + options.file, rc).throwOnError();
  }
  process->retain();  // released by the close callback after the exit
  process->_pid = process->_process.pid;
  if (options.endWithThisProcess)
    process->endWithThisProcess();
  return process;
}

Status Process::kill(int signal) {
  if (_exited)
    return Status("kill", UV_ESRCH);
  return Status("kill", uv_process_kill(&_process, signal));
}

String executablePath() {
  char buffer[4096];
  size_t size = sizeof buffer;
  if (uv_exepath(buffer, &size) != 0)
    return {};
  return String(std::string_view(buffer, size));
}

}  // namespace fn::uv

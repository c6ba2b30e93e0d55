#include "input_lines.h"

#include <unistd.h>

#include <cerrno>
#include <thread>

namespace ctl {

InputLines::InputLines(fn::RunLoop& loop) : _shared(std::make_shared<Shared>()) {
  _shared->loop = &loop;
  // Plain read(2) rather than std::cin: a thread blocked inside stdio holds the stream's lock,
  // which the process's exit may want.
  std::thread([shared = _shared] {
    std::string pending;
    char buffer[512];
    for (;;) {
      ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
      if (count < 0 && errno == EINTR)
        continue;
      std::lock_guard lock(shared->mutex);
      if (count > 0) {
        pending.append(buffer, static_cast<size_t>(count));
        for (size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
          shared->lines.push_back(pending.substr(0, end));
          pending.erase(0, end + 1);
        }
      } else {
        // A last line without a line feed still counts.
        if (!pending.empty())
          shared->lines.push_back(std::move(pending));
        shared->ended = true;
      }
      if (shared->loop)
        shared->loop->post([] {});
      if (shared->ended || !shared->loop)
        return;
    }
  }).detach();
}

InputLines::~InputLines() {
  std::lock_guard lock(_shared->mutex);
  _shared->loop = nullptr;
}

bool InputLines::ready() const {
  std::lock_guard lock(_shared->mutex);
  return !_shared->lines.empty() || _shared->ended;
}

std::optional<std::string> InputLines::take() {
  std::lock_guard lock(_shared->mutex);
  if (_shared->lines.empty())
    return std::nullopt;
  std::string line = std::move(_shared->lines.front());
  _shared->lines.pop_front();
  return line;
}

}  // namespace ctl

#include <sys/socket.h>
#include <unistd.h>

#include "foundation/uv/pipe_stream.h"

namespace fn::uv {

namespace {

std::optional<ucred> peerCredentials(int fd) {
  if (fd < 0)
    return std::nullopt;
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
    return std::nullopt;
  return credentials;
}

}  // namespace

// The socket lives in the user's private runtime directory, which keeps other users out.
Status PipeStream::bind(String const& path) {
  return Status("bind " + path, uv_pipe_bind(&_pipe, path.c_str()));
}

std::optional<uint32_t> PipeStream::peerUserId() const {
  auto credentials = peerCredentials(fileno());
  return credentials ? std::optional<uint32_t>(credentials->uid) : std::nullopt;
}

std::optional<int64_t> PipeStream::peerProcessId() const {
  auto credentials = peerCredentials(fileno());
  return credentials ? std::optional<int64_t>(credentials->pid) : std::nullopt;
}

}  // namespace fn::uv

namespace fn::uv {

bool PipeStream::peerIsSameUser() const {
  auto uid = peerUserId();
  return uid && *uid == static_cast<uint32_t>(geteuid());
}

}  // namespace fn::uv

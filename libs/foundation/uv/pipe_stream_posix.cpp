#include <sys/socket.h>
#include <unistd.h>

#include "foundation/uv/pipe_stream.h"

namespace fn::uv {

// The socket lives in the user's private runtime directory, which keeps other users out.
Status PipeStream::bind(String const& path) {
  return Status("bind " + path, uv_pipe_bind(&_pipe, path.c_str()));
}

std::optional<uint32_t> PipeStream::peerUserId() const {
  int fd = fileno();
  if (fd < 0)
    return std::nullopt;
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
    return std::nullopt;
  return credentials.uid;
}

}  // namespace fn::uv

namespace fn::uv {

bool PipeStream::peerIsSameUser() const {
  auto uid = peerUserId();
  return uid && *uid == static_cast<uint32_t>(geteuid());
}

}  // namespace fn::uv

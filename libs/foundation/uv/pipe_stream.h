#pragma once

#include <optional>

#include "foundation/uv/stream.h"

namespace fn::uv {

/// A local pipe: a Unix domain socket on POSIX, a named pipe on Windows.
class FN_EXPORT PipeStream : public Stream {
public:
  static AutoPtr<PipeStream> create(Loop& loop);

  Status bind(String const& path);
  /// Connects to `path`; `done` runs on the loop thread (not inside this call).
  void connect(String const& path, std::function<void(Status)> done);
  /// Adopts an already connected descriptor.
  Status open(int fd);

  /// The user id of the process at the other end, when the platform can tell.
  std::optional<uint32_t> peerUserId() const;
  /// The process id of the process at the other end, when the platform can tell.
  std::optional<int64_t> peerProcessId() const;
  /// True when the peer runs as the same user as this process.
  bool peerIsSameUser() const;

private:
  explicit PipeStream(Loop& loop);

  uv_pipe_t _pipe{};
  uv_connect_t _connect{};
  std::function<void(Status)> _onConnect;
};

}  // namespace fn::uv

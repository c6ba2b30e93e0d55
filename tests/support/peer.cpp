#include "peer.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "core/ipc/message.h"
#include "core/ipc/message_helper.h"
#include "foundation/mpack.h"

namespace testing_support {
namespace {

constexpr int CONTROL_FD = 3;

bool writeAll(int fd, void const* data, size_t size) {
  auto const* p = static_cast<uint8_t const*>(data);
  while (size > 0) {
    ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    p += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Takes complete frames off the front of `buffer`.
template <typename F>
void forEachFrame(fn::ByteArray& buffer, F&& f) {
  size_t at = 0;
  while (buffer.size() - at >= 4) {
    uint32_t length = buffer[at] | buffer[at + 1] << 8 | buffer[at + 2] << 16 |
                      static_cast<uint32_t>(buffer[at + 3]) << 24;
    if (buffer.size() - at - 4 < length)
      break;
    f(buffer.data() + at, length + 4);
    at += 4 + length;
  }
  buffer.erase(buffer.begin(), buffer.begin() + static_cast<ptrdiff_t>(at));
}

}  // namespace

int runPeerRelay(int argc, char** argv) {
  // argv: <exe> --peer <pipe path> [--no-pong] [--nobody]
  if (argc < 3)
    return 2;
  // A hub that closes on us must end the relay through a failed write, not SIGPIPE.
  ::signal(SIGPIPE, SIG_IGN);
  bool answerPings = true;
  for (int i = 3; i < argc; ++i) {
    if (std::strcmp(argv[i], "--no-pong") == 0)
      answerPings = false;
    if (std::strcmp(argv[i], "--nobody") == 0) {
      passwd* nobody = getpwnam("nobody");
      if (!nobody || setgid(nobody->pw_gid) != 0 || setuid(nobody->pw_uid) != 0)
        return 4;
    }
  }
  int hub = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, argv[2], sizeof address.sun_path - 1);
  if (::connect(hub, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    return 3;

  fn::ByteArray fromHub;
  uint8_t chunk[65536];
  pollfd fds[2] = {{CONTROL_FD, POLLIN, 0}, {hub, POLLIN, 0}};
  for (;;) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR)
        continue;
      return 5;
    }
    if (fds[0].revents) {
      ssize_t n = ::read(CONTROL_FD, chunk, sizeof chunk);
      if (n <= 0)
        return 0;
      if (!writeAll(hub, chunk, static_cast<size_t>(n)))
        return 0;
    }
    if (fds[1].revents) {
      ssize_t n = ::read(hub, chunk, sizeof chunk);
      if (n <= 0)
        return 0;
      fromHub.append(chunk, static_cast<size_t>(n));
      bool ok = true;
      forEachFrame(fromHub, [&](uint8_t const* frame, size_t size) {
        if (answerPings && size > 4) {
          fn::Value record = fn::mpack::decode(frame + 4, size - 4);
          if (record.get(ipc::key::TYPE).isInteger() &&
              record.get(ipc::key::TYPE).asInt() == ipc::type::PING) {
            fn::ByteArray pong;
            ipc::MessageWriter::encode(fn::Value::map({{ipc::key::TYPE, ipc::type::PONG}}), pong);
            ok = ok && writeAll(hub, pong.data(), pong.size());
            return;
          }
        }
        ok = ok && writeAll(CONTROL_FD, frame, size);
      });
      if (!ok)
        return 0;
    }
  }
}

std::unique_ptr<Peer> Peer::start(fn::uv::Loop& loop,
                                  fn::String const& pipePath,
                                  PeerOptions options) {
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
    return nullptr;
  std::unique_ptr<Peer> peer(new Peer(loop));
  std::vector<fn::String> arguments = {"--peer", pipePath};
  if (!options.answerPings)
    arguments.push_back("--no-pong");
  if (options.asNobody)
    arguments.push_back("--nobody");
  peer->_process = ChildProcess::startRole(loop, arguments, {pair[1]});
  Peer* raw = peer.get();
  ::close(pair[1]);
  peer->_control = fn::uv::PipeStream::create(loop);
  peer->_control->open(pair[0]).throwOnError();
  peer->_control->readStart([raw](char const* bytes, ssize_t count) {
    if (count <= 0)
      return;
    raw->_buffer.append(bytes, static_cast<size_t>(count));
    forEachFrame(raw->_buffer, [raw](uint8_t const* frame, size_t size) {
      raw->_received.push_back(size > 4 ? fn::mpack::decode(frame + 4, size - 4) : fn::Value());
    });
  });
  return peer;
}

Peer::~Peer() {
  close();
}

void Peer::send(fn::Value const& record) {
  ipc::MessageWriter::write(*_control, record);
}

void Peer::sendRaw(fn::ByteArray const& bytes) {
  _control->write(bytes);
}

void Peer::close() {
  if (_control)
    _control->close();
  _control.reset();
}

uint16_t Peer::hello(fn::String const& name, fn::String const& tag) {
  send(fn::Value::map(
      {{ipc::key::TYPE, ipc::type::HELLO}, {ipc::key::DISPLAY_NAME, name}, {ipc::key::TAG, tag}}));
  fn::Value reply = expectType(ipc::type::HELLO);
  return reply.isMap() ? reply.at(ipc::key::WORKER_ID).to<uint16_t>() : ipc::NO_WORKER;
}

fn::Value Peer::expect(std::function<bool(fn::Value const&)> const& match, fn::Duration timeout) {
  fn::Value found;
  bool matched = false;
  bool ok = runLoopUntil(
      _loop,
      [&] {
        while (!matched && !_received.empty()) {
          fn::Value record = std::move(_received.front());
          _received.pop_front();
          if (match(record)) {
            found = std::move(record);
            matched = true;
          }
        }
        return matched;
      },
      timeout);
  if (!ok)
    ADD_FAILURE() << "no matching record arrived in time";
  return found;
}

fn::Value Peer::expectType(int type, fn::Duration timeout) {
  return expect(
      [type](fn::Value const& r) {
        return r.get(ipc::key::TYPE).isInteger() && r.get(ipc::key::TYPE).asInt() == type;
      },
      timeout);
}

}  // namespace testing_support

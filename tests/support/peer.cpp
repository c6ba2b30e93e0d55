#include "peer.h"

#include <gtest/gtest.h>
#include <uv.h>

#include <cstring>
#include <optional>

#include "core/ipc/message.h"
#include "core/ipc/message_helper.h"
#include "foundation/mpack.h"

namespace testing_support {
namespace {

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

bool isPing(uint8_t const* frame, size_t size) {
  if (size <= 4)
    return false;
  fn::Value record = fn::mpack::decode(frame + 4, size - 4);
  return record.get(ipc::key::TYPE).isInteger() &&
         record.get(ipc::key::TYPE).asInt() == ipc::type::PING;
}

}  // namespace

// The relay's control channel is its standard input (what the test sends) and output (the
// frames the hub sent), so that it works the same wherever pipes can be inherited.
int runPeerRelay(int argc, char** argv) {
  // argv: <exe> --peer <pipe path> [--no-pong] [--nobody]
  if (argc < 3)
    return 2;
  bool answerPings = true;
  for (int i = 3; i < argc; ++i) {
    if (std::strcmp(argv[i], "--no-pong") == 0)
      answerPings = false;
    if (std::strcmp(argv[i], "--nobody") == 0 && !becomeNobody())
      return 4;
  }
  fn::uv::Loop loop;
  auto input = fn::uv::PipeStream::create(loop);
  auto output = fn::uv::PipeStream::create(loop);
  auto hub = fn::uv::PipeStream::create(loop);
  if (!input->open(0).ok() || !output->open(1).ok())
    return 5;
  int exitCode = -1;
  auto finish = [&](int code) {
    if (exitCode < 0)
      exitCode = code;
  };
  fn::ByteArray fromHub;
  hub->connect(argv[2], [&](fn::uv::Status status) {
    if (!status.ok())
      return finish(3);
    input->readStart([&](char const* bytes, ssize_t count) {
      if (count < 0)
        return finish(0);
      hub->write(fn::ByteArray(bytes, bytes + count));
    });
    hub->readStart([&](char const* bytes, ssize_t count) {
      if (count < 0)
        return finish(0);
      fromHub.append(reinterpret_cast<uint8_t const*>(bytes), static_cast<size_t>(count));
      forEachFrame(fromHub, [&](uint8_t const* frame, size_t size) {
        if (answerPings && isPing(frame, size)) {
          fn::ByteArray pong;
          ipc::MessageWriter::encode(fn::Value::map({{ipc::key::TYPE, ipc::type::PONG}}), pong);
          hub->write(pong);
        } else {
          output->write(fn::ByteArray(frame, frame + size));
        }
      });
    });
  });
  loop.runUntil([&] { return exitCode >= 0; });
  // What is still queued for either side goes out before the relay ends.
  hub->close();
  output->close();
  input->close();
  loop.runUntil([] { return false; });
  return exitCode;
}

std::unique_ptr<Peer> Peer::start(fn::uv::Loop& loop,
                                  fn::String const& pipePath,
                                  PeerOptions options) {
  uv_file toRelay[2], fromRelay[2];
  if (uv_pipe(toRelay, 0, UV_NONBLOCK_PIPE) != 0 || uv_pipe(fromRelay, UV_NONBLOCK_PIPE, 0) != 0)
    return nullptr;
  std::unique_ptr<Peer> peer(new Peer(loop));
  std::vector<fn::String> arguments = {"--peer", pipePath};
  if (!options.answerPings)
    arguments.push_back("--no-pong");
  if (options.asNobody)
    arguments.push_back("--nobody");
  peer->_process = ChildProcess::start(loop, {.file = fn::uv::executablePath(),
                                              .arguments = std::move(arguments),
                                              .standardInput = toRelay[0],
                                              .standardOutput = fromRelay[1]});
  for (uv_file end : {toRelay[0], fromRelay[1]}) {
    uv_fs_t request;
    uv_fs_close(nullptr, &request, end, nullptr);
    uv_fs_req_cleanup(&request);
  }
  Peer* raw = peer.get();
  peer->_control = fn::uv::PipeStream::create(loop);
  peer->_control->open(toRelay[1]).throwOnError();
  peer->_fromRelay = fn::uv::PipeStream::create(loop);
  peer->_fromRelay->open(fromRelay[0]).throwOnError();
  peer->_fromRelay->readStart([raw](char const* bytes, ssize_t count) {
    if (count <= 0)
      return;
    raw->_buffer.append(reinterpret_cast<uint8_t const*>(bytes), static_cast<size_t>(count));
    forEachFrame(raw->_buffer, [raw](uint8_t const* frame, size_t size) {
      raw->_received.push_back(size > 4 ? fn::mpack::decode(frame + 4, size - 4) : fn::Value());
    });
  });
  return peer;
}

Peer::~Peer() {
  for (auto const& stream : {_control, _fromRelay}) {
    if (stream)
      stream->close();
  }
}

void Peer::send(fn::Value const& record) {
  ipc::MessageWriter::write(*_control, record);
}

void Peer::sendRaw(fn::ByteArray const& bytes) {
  _control->write(bytes);
}

uint16_t Peer::hello(fn::String const& name, fn::String const& tag) {
  send(fn::Value::map(
      {{ipc::key::TYPE, ipc::type::HELLO}, {ipc::key::DISPLAY_NAME, name}, {ipc::key::TAG, tag}}));
  fn::Value reply = expectType(ipc::type::HELLO);
  return reply.isMap() ? reply.at(ipc::key::WORKER_ID).to<uint16_t>() : ipc::NO_WORKER;
}

fn::Value Peer::expect(std::function<bool(fn::Value const&)> const& match) {
  std::optional<fn::Value> found;
  auto arrived = [&] {
    for (; !found && !_received.empty(); _received.pop_front()) {
      if (match(_received.front()))
        found = std::move(_received.front());
    }
    return found.has_value();
  };
  if (!runLoopUntil(_loop, arrived))
    ADD_FAILURE() << "no matching record arrived in time";
  return found.value_or(fn::Value());
}

fn::Value Peer::expectType(int type) {
  return expect([type](fn::Value const& r) {
    return r.get(ipc::key::TYPE).isInteger() && r.get(ipc::key::TYPE).asInt() == type;
  });
}

}  // namespace testing_support

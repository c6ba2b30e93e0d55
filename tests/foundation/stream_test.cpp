#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "foundation/file.h"
#include "foundation/uv/loop.h"
#include "foundation/uv/pipe_stream.h"
#include "support.h"

namespace fn {
namespace {

// A listening socket in a fresh directory, a client connected to it and the accepted end.
class PipeStreamTest : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/tmp/fn-stream-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    _dir = pattern;
    _path = _dir + "/socket";
  }

  void TearDown() override {
    for (auto* stream : {&_server, &_client, &_accepted}) {
      if (*stream)
        (*stream)->close();
    }
    _loop.run();  // until every close callback ran
    File(_path).remove();
    ::rmdir(_dir.c_str());
  }

  void connectPair() {
    _server = uv::PipeStream::create(_loop);
    ASSERT_TRUE(_server->bind(_path)) << _path;
    ASSERT_TRUE(_server->listen(8, [this](uv::Status status) {
      ASSERT_TRUE(status);
      ++_connections;
      _accepted = uv::PipeStream::create(_loop);
      EXPECT_TRUE(_server->accept(*_accepted));
    }));
    int connects = 0;
    _client = uv::PipeStream::create(_loop);
    _client->connect(_path, [&connects](uv::Status status) {
      EXPECT_TRUE(status) << status.toString();
      ++connects;
    });
    EXPECT_EQ(connects, 0);
    ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return connects == 1 && _accepted; }));
    EXPECT_EQ(_connections, 1);
  }

  // Reads `stream` into `_received`, counting how the reading ended. Every delivery must be
  // bytes, the end, or an error: never an empty chunk.
  void readInto(AutoPtr<uv::PipeStream> const& stream) {
    stream->readStart([this](char const* bytes, ssize_t count) {
      if (count > 0)
        _received.append(bytes, static_cast<size_t>(count));
      else if (count == UV_EOF)
        ++_eofs;
      else
        _errors.push_back(static_cast<int>(count));
    });
  }

  uv::Loop _loop;
  AutoPtr<uv::PipeStream> _server, _client, _accepted;
  int _connections = 0;
  ByteArray _received;
  int _eofs = 0;
  std::vector<int> _errors;
  String _dir, _path;
};

TEST_F(PipeStreamTest, ManyWritesInOneIterationArriveIntactAndInOrder) {
  connectPair();
  readInto(_accepted);
  ByteArray expected;
  std::vector<int> writeCalls(500, 0);
  for (int i = 0; i < 500; ++i) {
    // Sizes from one byte to 18 KiB, each message filled with its own pattern.
    ByteArray message(static_cast<size_t>(i * 37 % 70001 + 1));
    for (size_t j = 0; j < message.size(); ++j)
      message[j] = static_cast<uint8_t>(i + j * 7);
    expected.insert(expected.end(), message.begin(), message.end());
    _client->write(message, [&writeCalls, i](uv::Status status) {
      EXPECT_TRUE(status) << status.toString();
      ++writeCalls[i];
    });
  }
  EXPECT_EQ(_client->pendingBytes(), expected.size());
  EXPECT_EQ(std::count(writeCalls.begin(), writeCalls.end(), 0), 500);

  ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return _received.size() >= expected.size(); }));
  EXPECT_TRUE(_received == expected);
  EXPECT_TRUE(testing::runLoopUntil(_loop, [&] { return _client->pendingBytes() == 0; }));
  EXPECT_EQ(std::count(writeCalls.begin(), writeCalls.end(), 1), 500);

  // Sizes that fill whole read buffers.
  for (size_t size : {65536, 131072}) {
    _received.clear();
    _client->write(ByteArray(size, 0x5a));
    ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return _received.size() == size; }));
    ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return _client->pendingBytes() == 0; }));
  }
  EXPECT_EQ(_errors, std::vector<int>{});
}

TEST_F(PipeStreamTest, PeerIsTheSameUserAndClosingDeliversEof) {
  connectPair();
  EXPECT_EQ(_accepted->peerUserId(), ::getuid());
  EXPECT_EQ(_client->peerUserId(), ::getuid());
  EXPECT_GE(_accepted->fileno(), 0);

  // The reader closes its own end from the read callback and keeps going afterwards.
  std::vector<String> events;
  _accepted->readStart([this, &events, self = _accepted](char const*, ssize_t count) {
    if (count == UV_EOF) {
      self->close();
      events.push_back("eof");
      ++_eofs;
    }
  });
  _client->write(ByteArray("bye"));
  _client->close();
  EXPECT_TRUE(_client->closed());
  _client->close();  // a second close is harmless
  ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return _eofs == 1; }));
  EXPECT_EQ(events, std::vector<String>{"eof"});
  EXPECT_TRUE(_accepted->closed());
}

TEST_F(PipeStreamTest, CloseSendsWhatWasQueuedAndFailsLaterWrites) {
  connectPair();
  readInto(_accepted);
  std::vector<int> statuses;
  for (int i = 0; i < 3; ++i)
    _client->write(ByteArray("queued"),
                   [&statuses](uv::Status s) { statuses.push_back(s.code()); });
  _client->close();
  _client->write(ByteArray("late"), [&statuses](uv::Status s) { statuses.push_back(s.code()); });
  EXPECT_TRUE(statuses.empty());  // failures are delivered later, never inside the call

  // A last record written just before closing still goes out; what comes after fails.
  ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return statuses.size() == 4 && _eofs == 1; }));
  std::sort(statuses.begin(), statuses.end());
  EXPECT_EQ(statuses, (std::vector<int>{UV_ECANCELED, 0, 0, 0}));
  EXPECT_EQ(_received.view(), "queuedqueuedqueued");
  EXPECT_TRUE(_errors.empty());
}

TEST_F(PipeStreamTest, ConnectToAMissingPathFailsWithAStatus) {
  _client = uv::PipeStream::create(_loop);
  std::vector<uv::Status> results;
  _client->connect(_dir + "/missing", [&results](uv::Status s) { results.push_back(s); });
  EXPECT_TRUE(results.empty());
  ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return !results.empty(); }));
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].code(), UV_ENOENT);
  EXPECT_NE(results[0].toString().find("ENOENT"), String::npos);
}

}  // namespace
}  // namespace fn

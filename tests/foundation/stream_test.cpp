#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "foundation/uv/loop.h"
#include "foundation/uv/pipe_stream.h"
#include "platform.h"
#include "support.h"

namespace fn {
namespace {

// A listening socket in a fresh directory, a client connected to it and the accepted end,
// which reads into `_received`. Every delivery must be bytes, the end, or an error: never an
// empty chunk.
class PipeStreamTest : public ::testing::Test {
protected:
  void SetUp() override {
    _dir = testing_support::makeTemporaryDirectory("fn-stream");
    _server = uv::PipeStream::create(_loop);
    _path = testing_support::localPipePath(_dir, "socket");
    ASSERT_TRUE(_server->bind(_path));
    ASSERT_TRUE(_server->listen(8, [this](uv::Status status) {
      ASSERT_TRUE(status);
      _accepted = uv::PipeStream::create(_loop);
      EXPECT_TRUE(_server->accept(*_accepted));
    }));
    _client = uv::PipeStream::create(_loop);
    bool connected = false;
    _client->connect(_path, [&connected](uv::Status status) { connected = status.ok(); });
    EXPECT_FALSE(connected);
    ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return connected && _accepted; }));
    _accepted->readStart([this](char const* bytes, ssize_t count) {
      if (count > 0) {
        _received.append(bytes, static_cast<size_t>(count));
      } else if (count == UV_EOF) {
        _accepted->close();  // closing from inside the read callback must be safe
        ++_eofs;
      } else {
        _errors.push_back(static_cast<int>(count));
      }
    });
  }

  void TearDown() override {
    for (auto* stream : {&_server, &_client, &_accepted}) {
      if (*stream)
        (*stream)->close();
    }
    _loop.run();  // until every close callback ran
    std::filesystem::remove_all(std::string(_dir));
  }

  uv::Loop _loop;
  AutoPtr<uv::PipeStream> _server, _client, _accepted;
  ByteArray _received;
  int _eofs = 0;
  std::vector<int> _errors;
  String _dir;
  String _path;
};

TEST_F(PipeStreamTest, ManyWritesInOneIterationArriveIntactAndInOrder) {
  EXPECT_TRUE(_accepted->peerIsSameUser());
  ByteArray expected;
  int writeCalls = 0;
  for (int i = 0; i < 500; ++i) {
    // Sizes from one byte to 18 KiB, each message filled with its own byte.
    ByteArray message(static_cast<size_t>(i * 37 + 1), static_cast<uint8_t>(i));
    expected.insert(expected.end(), message.begin(), message.end());
    _client->write(message, [&writeCalls](uv::Status status) { writeCalls += status.ok(); });
  }
  EXPECT_EQ(writeCalls, 0);
  ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return _received.size() >= expected.size(); }));
  EXPECT_TRUE(_received == expected);
  EXPECT_TRUE(testing::runLoopUntil(_loop, [&] { return writeCalls == 500; }));

  // Sizes that fill whole read buffers.
  for (size_t size : {65536, 131072}) {
    _received.clear();
    _client->write(ByteArray(size, 0x5a));
    ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return _received.size() == size; }));
  }
  EXPECT_EQ(_errors, std::vector<int>{});
}

TEST_F(PipeStreamTest, CloseSendsWhatWasQueuedAndFailsLaterWrites) {
  std::vector<int> statuses;
  auto record = [&statuses](uv::Status s) { statuses.push_back(s.code()); };
  for (int i = 0; i < 3; ++i)
    _client->write(ByteArray("queued"), record);
  _client->close();
  _client->write(ByteArray("late"), record);
  EXPECT_TRUE(statuses.empty());  // failures are delivered later, never inside the call

  // A last record written just before closing still goes out; what comes after fails.
  ASSERT_TRUE(testing::runLoopUntil(_loop, [&] { return statuses.size() == 4 && _eofs == 1; }));
  std::sort(statuses.begin(), statuses.end());
  EXPECT_EQ(statuses, (std::vector<int>{UV_ECANCELED, 0, 0, 0}));
  EXPECT_EQ(_received.view(), "queuedqueuedqueued");
  EXPECT_TRUE(_errors.empty());
  EXPECT_TRUE(_accepted->closed());
  _client->close();  // a second close is harmless
}

}  // namespace
}  // namespace fn

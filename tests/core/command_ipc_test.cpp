#include "core/command_ipc.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "core/ipc/message_helper.h"
#include "foundation/environment.h"
#include "foundation/file.h"
#include "loop_runner.h"
#include "platform.h"
#include "test_support.h"

namespace core {
namespace {

using testing::LogCapture;
using testing_support::runLoopUntil;

class CommandIPCTest : public ::testing::Test {
protected:
  void TearDown() override {
    if (server)
      server->stop();
    server.reset();
    testing_support::drainLoop(loop);
  }

  void listen() {
    server = fn::makeAuto<CommandIPC>();
    received = server->onCommand().connect([this](fn::Value v) { commands.push_back(v); });
    server->bind();
  }

  /// A client that speaks the framing by hand.
  fn::AutoPtr<fn::uv::PipeStream> rawClient() {
    auto client = fn::uv::PipeStream::create(loop);
    bool connected = false;
    client->connect(CommandIPC::pipePath(), [&](fn::uv::Status s) { connected = s.ok(); });
    EXPECT_TRUE(runLoopUntil(loop, [&] { return connected; }));
    return client;
  }

  static fn::ByteArray frames(std::initializer_list<fn::Value> values) {
    fn::ByteArray out;
    for (auto const& v : values)
      ipc::MessageWriter::encode(v, out);
    return out;
  }

  testing::TemporaryRuntimeDirectory runtime;
  fn::uv::Loop& loop = fn::uv::Loop::defaultLoop();
  fn::AutoPtr<CommandIPC> server;
  fn::Handle received;
  std::vector<fn::Value> commands;
};

TEST_F(CommandIPCTest, ASendToTheUsersPipeWithNobodyListeningFailsOnceWithItsReason) {
  fn::String place = testing_support::isWindows() ? fn::String("\\\\.\\pipe\\")
                                                  : fn::String(runtime.directory() + "/");
  EXPECT_EQ(CommandIPC::pipePath(), place + "lumaren-command-ipc." + fn::Environment::userName());
  LogCapture log;
  int plain = 0, told = 0;
  bool delivered = true;
  CommandIPC::send(fn::Value(1), [&] { ++plain; });
  CommandIPC::send(fn::Value(2), [&](bool ok) {
    ++told;
    delivered = ok;
  });
  EXPECT_EQ(plain + told, 0) << "done ran inside send()";
  ASSERT_TRUE(runLoopUntil(loop, [&] { return plain && told; }));
  testing_support::drainLoop(loop);
  EXPECT_EQ(std::pair(plain, told), std::pair(1, 1));
  EXPECT_FALSE(delivered);
  auto failures = log.matching("CommandIPC failed: ");
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_EQ(failures[0].category, "core.commandIPC");
  EXPECT_EQ(failures[0].priority, fn::logging::ERR);
  EXPECT_NE(failures[0].text.find("ENOENT"), fn::String::npos) << failures[0].text;
}

TEST_F(CommandIPCTest, CommandsArriveInOrderAndABadConnectionEndsAlone) {
  listen();
  // A receiver that throws is reported and keeps neither others nor later commands out.
  fn::Handle throwing = server->onCommand().connect([](fn::Value const& v) {
    if (v.isInteger() && v.asInt() == 1)
      throw fn::RuntimeException("receiver failed");
  });
  fn::Value first = fn::Value::map({{"open", "a.mkv"}, {"at", 12}});
  int done = 0;
  CommandIPC::send(fn::Value(1), [&](bool ok) { done += ok; });
  CommandIPC::send(first, [&](bool ok) { done += ok; });
  ASSERT_TRUE(runLoopUntil(loop, [&] { return commands.size() == 2 && done == 2; }));

  // Two frames in one write are two commands; a connection that sends garbage is closed
  // while the good one goes on.
  auto good = rawClient();
  good->write(frames({fn::Value("two"), fn::Value("three")}));
  auto bad = rawClient();
  bool badEnded = false;
  bad->readStart([&](char const*, ssize_t n) { badEnded = badEnded || n < 0; });
  bad->write(fn::ByteArray{3, 0, 0, 0, 0xc1, 0xc1, 0xc1});
  ASSERT_TRUE(runLoopUntil(loop, [&] { return badEnded && commands.size() == 4; }));
  good->write(frames({fn::Value("four")}));
  ASSERT_TRUE(runLoopUntil(loop, [&] { return commands.size() == 5; }));
  EXPECT_EQ(commands, (std::vector<fn::Value>{1, first, "two", "three", "four"}));
  good->close();
  bad->close();
}

TEST_F(CommandIPCTest, AFileInThePipesPlaceIsMovedAsideAndPutBack) {
  SKIP_ON_WINDOWS("a named pipe has no file in its place");
  fn::File(runtime.directory()).createDirectories(0700);
  fn::File(CommandIPC::pipePath()).writeAll(fn::ByteArray("left behind"), 0600);
  listen();
  bool delivered = false;
  CommandIPC::send(fn::Value("hello"), [&](bool ok) { delivered = ok; });
  ASSERT_TRUE(runLoopUntil(loop, [&] { return commands.size() == 1; }));
  EXPECT_TRUE(delivered);

  server->stop();
  EXPECT_EQ(fn::File(CommandIPC::pipePath()).readAll(), fn::ByteArray("left behind"));
  size_t files = 0;
  for (auto const& entry : std::filesystem::directory_iterator(std::string(runtime.directory())))
    files += entry.path().filename().string().starts_with("lumaren-command-ipc.");
  EXPECT_EQ(files, 1u) << "the backup was not put back";
}

}  // namespace
}  // namespace core

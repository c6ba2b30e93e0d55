// Feeds arbitrary bytes to a listening command pipe as if another process of the user had sent
// them: the frame reader and the delivery of commands. One connection per input; the pipe
// serves them all, as a running instance would. Nothing may crash, and every connection ends.

#include <stdlib.h>

#include <cstddef>
#include <cstdint>

#include "core/command_ipc.h"
#include "foundation/environment.h"
#include "foundation/logging/category.h"
#include "foundation/uv/loop.h"

namespace {

struct Pipe {
  Pipe() {
    fn::logging::CategoryManager::instance().setThreshold("*", 0);
    char pattern[] = "/tmp/lumaren-fuzz-XXXXXX";
    fn::Environment::set("XDG_RUNTIME_DIR", ::mkdtemp(pattern));
    received = server->onCommand().connect([this](fn::Value value) {
      ++commands;
      (void)value.toString();
    });
    server->bind();
  }

  template <typename Done>
  void spin(Done done) {
    for (int i = 0; i < 1000 && !done(); ++i)
      uv_run(loop.raw(), UV_RUN_ONCE);
  }

  fn::uv::Loop& loop = fn::uv::Loop::defaultLoop();
  fn::AutoPtr<core::CommandIPC> server = fn::makeAuto<core::CommandIPC>();
  fn::Handle received;
  size_t commands = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static Pipe* pipe = new Pipe();
  auto client = fn::uv::PipeStream::create(pipe->loop);
  bool connected = false, ended = false;
  client->connect(core::CommandIPC::pipePath(),
                  [&](fn::uv::Status const& s) { connected = s.ok(); });
  pipe->spin([&] { return connected; });
  client->readStart([&](char const*, ssize_t n) { ended = ended || n < 0; });
  client->write(fn::ByteArray(data, data + size));
  client->shutdown();
  // The pipe closes its end once it read everything (or a bad frame).
  pipe->spin([&] { return ended; });
  client->close();
  for (int i = 0; i < 4; ++i)
    uv_run(pipe->loop.raw(), UV_RUN_NOWAIT);
  return 0;
}

// Feeds arbitrary bytes to a running hub as if a worker process had sent them: the frame
// reader, the hub's record handling (HELLO, routing, usage accounting, releases) and, for what
// gets routed to it, the hub's own worker. State carries over between inputs, as it would in
// a hub that serves a hostile peer for a long time. Nothing may crash.

#include <cstddef>
#include <cstdint>

#include "core/ipc/dispatcher.h"
#include "core/ipc/payload.h"
#include "foundation/logging/category.h"

namespace {

struct Hub {
  Hub() {
    fn::logging::CategoryManager::instance().setThreshold("*", 0);
    dispatcher.bind();
    dispatcher.start();
    spin([&] { return dispatcher.worker().connected(); });
  }

  template <typename Done>
  void spin(Done done) {
    for (int i = 0; i < 1000 && !done(); ++i)
      uv_run(loop.raw(), UV_RUN_ONCE);
  }

  fn::uv::Loop loop;
  ipc::Dispatcher dispatcher{loop, fn::Duration::seconds(30),
                             ipc::Dispatcher::Options{.maxFrameSize = 1 << 20}};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  static Hub* hub = new Hub();
  size_t baseline = hub->dispatcher.connectionCount();

  auto client = fn::uv::PipeStream::create(hub->loop);
  bool connected = false;
  client->connect(hub->dispatcher.pipePath(), [&](fn::uv::Status const& s) { connected = s.ok(); });
  hub->spin([&] { return connected && hub->dispatcher.connectionCount() > baseline; });
  client->write(fn::ByteArray(data, data + size));
  client->close();
  hub->spin([&] { return hub->dispatcher.connectionCount() == baseline; });
  // Posted work (deliveries, deferred destruction) runs before the next input.
  for (int i = 0; i < 4; ++i)
    uv_run(hub->loop.raw(), UV_RUN_NOWAIT);

  // The diagnostic rendering of whatever the input decodes to must cope as well.
  try {
    if (size > 0)
      ipc::translatePayload(fn::mpack::decode(data, size)).toString();
  } catch (fn::Exception const&) {
  }
  return 0;
}

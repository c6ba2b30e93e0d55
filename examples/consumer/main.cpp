// lumaren-consumer: the smallest host of the object framework. Starts a dispatcher on a loop of
// its own, connects a worker to it in the same process, prints the pipe and the worker id the
// hub assigned, and exits 0; exits 1 when the worker is not connected within the time-out.

#include <fmt/format.h>

#include <cstdio>

#include "core/ipc/dispatcher.h"
#include "core/ipc/worker.h"
#include "foundation/uv/loop.h"

namespace {

constexpr fn::Duration LIVENESS_TIMEOUT = fn::Duration::seconds(30);
constexpr fn::Duration CONNECT_TIMEOUT = fn::Duration::seconds(10);

}  // namespace

int main() {
  fn::uv::Loop loop;
  ipc::Dispatcher dispatcher(loop, LIVENESS_TIMEOUT);
  dispatcher.bind();
  dispatcher.start();
  fmt::print("pipe: {}\n", dispatcher.pipePath());

  ipc::Worker::ClientDelegate delegate;
  ipc::Worker worker(delegate, loop, dispatcher.pipePath(), "consumer", "example", false);
  worker.connect();

  // The worker has its id once the hub answered its HELLO; the timer bounds the wait, so a
  // broken installation fails instead of hanging.
  bool timedOut = false;
  auto deadline = loop.schedule(CONNECT_TIMEOUT, [&] { timedOut = true; });
  loop.runUntil([&] { return worker.connected() || timedOut; });
  if (!worker.connected()) {
    fmt::print(stderr, "the worker did not connect within {} s\n", CONNECT_TIMEOUT.totalSeconds());
    return 1;
  }
  fmt::print("worker id: {}\n", worker.workerId());
  std::fflush(stdout);
  worker.stop();
  return 0;
}

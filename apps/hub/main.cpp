// lumaren-hub: the hub process. Runs a dispatcher on the default loop until SIGINT or SIGTERM.
//
//   lumaren-hub [--pipe-file PATH] [--timeout SECONDS] [--demo]
//
//   --pipe-file PATH   write the pipe path into PATH once the hub listens
//   --timeout SECONDS  liveness time-out (default 30): workers are pinged every third of it
//                      and reported not responding after a whole time-out without an answer
//   --demo             run the self-demonstration and exit

#include <csignal>
#include <cstdio>
#include <cstring>

#include "core/ipc/dispatcher.h"
#include "foundation/file.h"
#include "foundation/logging/category.h"
#include "hub/demo.h"

namespace {

constexpr fn::Duration DEFAULT_TIMEOUT = fn::Duration::seconds(30);
constexpr fn::Duration STOP_GRACE = fn::Duration::milliseconds(500);

fn::logging::Category logHub("hub");

void usage() {
  std::fputs("usage: lumaren-hub [--pipe-file PATH] [--timeout SECONDS] [--demo]\n", stderr);
}

int runHub(fn::uv::Loop& loop, fn::Duration timeout, fn::String const& pipeFile) {
  ipc::Dispatcher dispatcher(loop, timeout);
  dispatcher.bind();
  dispatcher.start();
  if (!pipeFile.empty())
    fn::File(pipeFile).writeAll(fn::ByteArray(dispatcher.pipePath() + "\n"), 0600);
  logHub.log(fn::logging::INF, "Hub listening on {}", dispatcher.pipePath());

  bool stopping = false;
  auto onSignal = [&] {
    if (stopping)
      return;
    stopping = true;
    logHub.log(fn::logging::INF, "Stopping");
    dispatcher.stop(STOP_GRACE, [] {});
  };
  uv_signal_t signals[2];
  int numbers[2] = {SIGINT, SIGTERM};
  for (int i = 0; i < 2; ++i) {
    uv_signal_init(loop.raw(), &signals[i]);
    signals[i].data = &onSignal;
    uv_signal_start(
        &signals[i], [](uv_signal_t* s, int) { (*static_cast<decltype(onSignal)*>(s->data))(); },
        numbers[i]);
  }
  loop.run();
  for (auto& s : signals)
    uv_close(reinterpret_cast<uv_handle_t*>(&s), nullptr);
  if (!pipeFile.empty())
    fn::File(pipeFile).remove();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  fn::Duration timeout = DEFAULT_TIMEOUT;
  fn::String pipeFile, demoWorker, pipe;
  bool demo = false;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg(argv[i]);
    auto value = [&]() -> fn::String {
      if (i + 1 >= argc) {
        usage();
        std::exit(2);
      }
      return argv[++i];
    };
    if (arg == "--pipe-file") {
      pipeFile = value();
    } else if (arg == "--timeout") {
      auto seconds = value().toInt();
      if (!seconds || *seconds <= 0) {
        usage();
        return 2;
      }
      timeout = fn::Duration::seconds(*seconds);
    } else if (arg == "--demo") {
      demo = true;
    } else if (arg == "--demo-worker") {
      demoWorker = value();
    } else if (arg == "--pipe") {
      pipe = value();
    } else {
      usage();
      return 2;
    }
  }
  try {
    fn::uv::Loop& loop = fn::uv::Loop::defaultLoop();
    if (!demoWorker.empty())
      return hub::runDemoWorker(loop, demoWorker, pipe);
    if (demo)
      return hub::runDemo(loop, timeout);
    return runHub(loop, timeout, pipeFile);
  } catch (fn::Exception const& e) {
    std::fprintf(stderr, "lumaren-hub: %s\n", e.toString().c_str());
    return 1;
  }
}

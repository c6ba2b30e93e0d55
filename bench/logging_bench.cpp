// lumaren-logging-bench: messages per second through a formatted file profile (a
// LoggingProfileSink with one profile writing a rotating log file), beside spdlog's rotating
// file sink with a pattern that carries the same information (time, level, thread, source
// file and line, text), with 1 and 4 logging threads; and the cost of a message that no
// profile lets through, the common case in production. Files go to a fresh directory under
// /tmp, rotated at 1 MiB and kept in 9 files by both.
//
//   lumaren-logging-bench [Google Benchmark options]

#include <benchmark/benchmark.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>

#include "core/logging_profile_sink.h"
#include "foundation/environment.h"
#include "foundation/file.h"
#include "foundation/path_manager.h"

namespace {

fn::logging::Category logBench("bench.logging");
std::shared_ptr<spdlog::logger> spdlogger;
std::atomic<int> counter{0};

void profileFile(benchmark::State& state) {
  for (auto _ : state)
    logBench.log(fn::logging::INF, "message {} with some text {}", ++counter, "to carry");
  state.SetItemsProcessed(state.iterations());
}

void spdlogRotatingFile(benchmark::State& state) {
  for (auto _ : state)
    spdlogger->log(spdlog::source_loc{__FILE__, __LINE__, SPDLOG_FUNCTION}, spdlog::level::info,
                   "message {} with some text {}", ++counter, "to carry");
  state.SetItemsProcessed(state.iterations());
}

void filteredOut(benchmark::State& state) {
  for (auto _ : state)
    logBench.log(fn::logging::DBG, "message {} with some text {}", ++counter, "to carry");
  state.SetItemsProcessed(state.iterations());
}

void spdlogFilteredOut(benchmark::State& state) {
  for (auto _ : state)
    spdlogger->log(spdlog::source_loc{__FILE__, __LINE__, SPDLOG_FUNCTION}, spdlog::level::debug,
                   "message {} with some text {}", ++counter, "to carry");
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(profileFile)->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(spdlogRotatingFile)->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(filteredOut)->Threads(1);
BENCHMARK(spdlogFilteredOut)->Threads(1);

}  // namespace

int main(int argc, char** argv) {
  char pattern[] = "/tmp/lumaren-logging-bench-XXXXXX";
  if (!::mkdtemp(pattern))
    return 1;
  std::string root = pattern;
  fn::Environment::set(fn::PathManager::TEST_ROOT_VARIABLE, root);
  auto& paths = fn::PathManager::instance();
  fn::File(paths.getPath(fn::PathManager::APPLICATION_DATA, "logging_profiles/main", true))
      .writeAll(fn::ByteArray("enabled = true\nthreshold = 4\n"));

  // The profile sink alone, as in a process whose profiles write no console.
  auto& manager = fn::logging::CategoryManager::instance();
  manager.unregisterSink(manager.consoleSink().get());
  auto sink = fn::makeAuto<core::LoggingProfileSink>("bench");
  sink->reload(paths.getPath(fn::PathManager::APPLICATION_DATA, "logging_profiles"));
  manager.registerSink(sink);

  spdlogger = spdlog::rotating_logger_mt("bench", root + "/spdlog/bench.spdlog.log",
                                         core::LoggingProfileSink::LOG_FILE_SIZE_LIMIT,
                                         core::LoggingProfileSink::LOG_FILE_COUNT_LIMIT - 1);
  spdlogger->set_pattern("%H:%M:%S %L %t %s:%# %v");
  spdlogger->set_level(spdlog::level::info);
  spdlogger->flush_on(spdlog::level::warn);

  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  spdlog::shutdown();
  manager.unregisterSink(sink.get());
  sink.reset();
  std::filesystem::remove_all(root);
  return 0;
}

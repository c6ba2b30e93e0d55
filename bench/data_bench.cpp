// lumaren-data-bench: the application services that handle bulk data.
//
// - ResourceHash: forFile on a 1 MiB file and on a 10 GiB sparse one; "read" counts the bytes
//   the process read per hash (rchar of /proc/self/io), which must stay at 6 x 64 KiB or less.
// - Clone: Image::clone with 16-pixel margins of a 1920x1080 YUV_420 and a 3840x2160 Packed32
//   image, beside memcpy of the same number of bytes between warm buffers in the same run.
//   Bytes per second count the bytes of the clone's planes.
// - Scope: a ScopedConnection on a database that is open and idle (no schema check), beside
//   taking and releasing the bare lock and the stat of the file's path that re-activation
//   makes; "with loop" also runs the posted cancellation and re-arming of the delayed close on
//   the default loop.
//
//   lumaren-data-bench [Google Benchmark options, e.g. --benchmark_filter=Clone]

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "core/database_access.h"
#include "core/image.h"
#include "core/resource_hash.h"
#include "foundation/file.h"
#include "foundation/logging/category.h"
#include "foundation/uv/loop.h"

namespace {

fn::String const DIRECTORY = fmt::format("/tmp/lumaren-data-bench-{}", getpid());

int64_t bytesReadByProcess() {
  std::ifstream io("/proc/self/io");
  std::string key;
  int64_t value = 0;
  while (io >> key >> value) {
    if (key == "rchar:")
      return value;
  }
  return -1;
}

fn::String makeFile(char const* name, int64_t size) {
  fn::String path = DIRECTORY + "/" + name;
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0 || ::ftruncate(fd, size) != 0)
    throw std::runtime_error("cannot create " + path);
  // Some content, so that a 1 MiB file is not all holes.
  std::string block(4096, 'x');
  for (int64_t at = 0; at < std::min<int64_t>(size, 1 << 20); at += 4096)
    (void)::pwrite(fd, block.data(), block.size(), at);
  ::close(fd);
  return path;
}

void ResourceHash(benchmark::State& state) {
  int64_t size = state.range(0);
  fn::String path = makeFile(size > (1 << 20) ? "large" : "small", size);
  int64_t before = bytesReadByProcess();
  for (auto _ : state)
    benchmark::DoNotOptimize(core::ResourceHash::forFile(path));
  // /proc/self/io is read through read() too; its own bytes are left out.
  int64_t probe = bytesReadByProcess();
  int64_t probeCost = bytesReadByProcess() - probe;
  state.counters["read"] = double(probe - before - probeCost) / double(state.iterations());
  fn::File(path).remove();
}
BENCHMARK(ResourceHash)
    ->Arg(int64_t(1) << 20)
    ->Arg(int64_t(10) << 30)
    ->Unit(benchmark::kMicrosecond);

fn::AutoPtr<core::Image> makeImage(core::Image::Format format, uint32_t width, uint32_t height) {
  if (format != core::Image::Format::YUV_420) {
    fn::ByteArray pixels(size_t(width) * height * 4, 0x5a);
    return fn::makeAuto<core::BufferImage>(format, width, height, 0, std::move(pixels),
                                           core::Fraction(1, 1));
  }
  fn::ByteArray y(size_t(width) * height, 0x10), u(y.size() / 4, 0x80), v(y.size() / 4, 0x80);
  return fn::makeAuto<core::BufferImage>(format, width, height, width, width / 2, width / 2,
                                         std::move(y), std::move(u), std::move(v),
                                         core::Fraction(1, 1));
}

uint64_t planeBytes(core::Image const& image) {
  uint64_t total = 0;
  for (unsigned p = 0; p < image.planeCount(); ++p)
    total += image.size(p);
  return total;
}

void Clone(benchmark::State& state) {
  auto format = core::Image::Format(state.range(0));
  auto image = makeImage(format, uint32_t(state.range(1)), uint32_t(state.range(2)));
  core::Margins margins{16, 16, 16, 16};
  uint64_t bytes = planeBytes(*image->clone(margins));
  for (auto _ : state)
    benchmark::DoNotOptimize(image->clone(margins, 0x10808010));
  state.SetBytesProcessed(int64_t(bytes * state.iterations()));
}
BENCHMARK(Clone)
    ->Args({int(core::Image::Format::YUV_420), 1920, 1080})
    ->Args({int(core::Image::Format::Packed32A), 3840, 2160})
    ->Unit(benchmark::kMicrosecond);

void Memcpy(benchmark::State& state) {
  std::vector<uint8_t> from(size_t(state.range(0)), 0x5a), to(from.size());
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(from.size()) * state.iterations());
}
// The byte counts of the two clones above, margins included.
BENCHMARK(Memcpy)
    ->Arg((1920 + 32) * (1080 + 32) * 3 / 2)
    ->Arg((3840 + 32) * (2160 + 32) * 4)
    ->Unit(benchmark::kMicrosecond);

class Catalogue : public core::DatabaseAccess {
public:
  explicit Catalogue(fn::String const& path) : DatabaseAccess(1, path) {}

protected:
  void initSchema() override { database().execute("create table items (title text)"); }
};

void drain() {
  for (int i = 0; i < 4; ++i)
    uv_run(fn::uv::Loop::defaultLoop().raw(), UV_RUN_NOWAIT);
}

void Scope(benchmark::State& state) {
  bool withLoop = state.range(0) != 0;
  fn::String path = DIRECTORY + "/scope.db";
  {
    Catalogue catalogue(path);
    { core::DatabaseAccess::ScopedConnection open(catalogue); }
    int round = 0;
    for (auto _ : state) {
      { core::DatabaseAccess::ScopedConnection scope(catalogue); }
      if (++round % 256 != 0)
        continue;
      if (withLoop) {
        drain();
      } else {
        state.PauseTiming();
        drain();
        state.ResumeTiming();
      }
    }
  }
  drain();
  fn::File(path).remove();
}
BENCHMARK(Scope)->ArgName("with loop")->Arg(0)->Arg(1);

// Re-activating an open database checks that its file is still there (another process may
// have removed a malformed one): one stat of the path, shown alone here.
void ExistenceCheck(benchmark::State& state) {
  fn::String path = makeFile("scope.db", 0);
  for (auto _ : state)
    benchmark::DoNotOptimize(fn::File(path).exists());
  fn::File(path).remove();
}
BENCHMARK(ExistenceCheck);

void Lock(benchmark::State& state) {
  fn::Lock lock;
  for (auto _ : state) {
    lock.lock();
    benchmark::DoNotOptimize(&lock);
    lock.unlock();
  }
}
BENCHMARK(Lock);

}  // namespace

int main(int argc, char** argv) {
  fn::logging::CategoryManager::instance().setThreshold("*", 0);
  fn::File(DIRECTORY).createDirectories();
  fn::uv::Loop::defaultLoop();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::filesystem::remove_all(std::string(DIRECTORY));
  return 0;
}

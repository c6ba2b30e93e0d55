#include "core/resource_hash.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "foundation/environment.h"
#include "foundation/exception.h"
#include "platform.h"
#include "test_support.h"

namespace core {
namespace {

using testing::TemporaryRoot;

// The sampling written again in Python, with hashlib's SHA-1.
constexpr char const* REFERENCE = R"(
import hashlib, os, sys
path = sys.argv[1]
size = os.path.getsize(path)
sha = hashlib.sha1(size.to_bytes(8, 'little'))
with open(path, 'rb') as f:
    if size < 5 * 65536:
        sha.update(f.read())
    else:
        step = size // 5
        for i in range(5):
            f.seek(i * step)
            sha.update(f.read(65536))
        tail = min(step - 65536, 65536)
        if tail > 0:
            f.seek(size - tail)
            sha.update(f.read(tail))
print(sha.hexdigest())
)";

fn::String referenceHash(fn::String const& path) {
  fn::String command = fmt::format("python3 -c \"$LUMAREN_SAMPLER\" '{}'", path);
  fn::Environment::set("LUMAREN_SAMPLER", REFERENCE);
  std::FILE* pipe = ::popen(command.c_str(), "r");
  char line[64] = {};
  bool read = pipe && std::fgets(line, sizeof line, pipe);
  if (pipe)
    ::pclose(pipe);
  EXPECT_TRUE(read) << command;
  return fn::String(line).trim();
}

/// A file of `size` bytes, sparse but for its offset written as text every `every` bytes, so
/// that each sample differs from the others; `mark` is written at `markAt`.
void makeFile(fn::String const& path,
              int64_t size,
              int64_t every = 4096,
              int64_t markAt = -1,
              std::string_view mark = {}) {
  { std::ofstream(std::string(path), std::ios::binary | std::ios::trunc); }
  std::filesystem::resize_file(std::string(path), static_cast<uintmax_t>(size));
  std::fstream file(std::string(path), std::ios::binary | std::ios::in | std::ios::out);
  for (int64_t at = 0; at + 16 <= size; at += every)
    file.seekp(at).write(fmt::format("{:16}", at).data(), 16);
  if (markAt >= 0)
    file.seekp(markAt).write(mark.data(), static_cast<std::streamsize>(mark.size()));
  ASSERT_TRUE(file.good()) << path;
}

TEST(ResourceHash, MatchesTheSampledSha1OfAnIndependentReader) {
  TemporaryRoot root;
  fn::String path = root.file("media");
  // Sizes: empty, just under the limit (hashed whole), at the limit (five samples, no tail), a
  // short tail, a full tail, and a sparse 10 GiB file (a text at the start of each sample).
  constexpr int64_t MiB = 1 << 20, GiB = int64_t(1) << 30;
  for (int64_t size : std::vector<int64_t>{0, 327679, 327680, 400000, MiB, 10 * GiB}) {
    makeFile(path, size, size > MiB ? 16 * MiB : 4096, size - 100, "the end");
    fn::String hash = ResourceHash::forFile(path);
    // The independent reader is Python, which the Windows test machine does not have; the
    // empty file's known hash below covers Windows' SHA-1, and there the sampling of a file
    // beyond 4 GiB must not fail.
    if (!testing_support::isWindows()) {
      EXPECT_EQ(hash, referenceHash(path)) << size;
    }
  }
  // An empty file hashes its size alone: eight zero bytes.
  makeFile(path, 0);
  EXPECT_EQ(ResourceHash::forFile(path), "05fe405753166f125559e7c9ac558654f107c7e9");
}

TEST(ResourceHash, LargeFilesDifferingOnlyBetweenSamplesShareTheHash) {
  TemporaryRoot root;
  int64_t const size = 100 << 20;  // samples every 20 MiB
  makeFile(root.file("a"), size, 1 << 20, size / 5 + 70000, "A");
  makeFile(root.file("b"), size, 1 << 20, size / 5 + 70000, "B");
  makeFile(root.file("c"), size + 1, 1 << 20);
  EXPECT_EQ(ResourceHash::forFile(root.file("a")), ResourceHash::forFile(root.file("b")));
  EXPECT_NE(ResourceHash::forFile(root.file("a")), ResourceHash::forFile(root.file("c")));

  for (auto const& path : {root.file("missing"), root.path()}) {
    try {
      ResourceHash::forFile(path);
      ADD_FAILURE() << path;
    } catch (fn::FileException const& e) {
      EXPECT_EQ(e.info().path, path);
    }
  }
}

}  // namespace
}  // namespace core

#include "core/resource_hash.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "foundation/exception.h"
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
  setenv("LUMAREN_SAMPLER", REFERENCE, 1);
  std::FILE* pipe = ::popen(command.c_str(), "r");
  char line[64] = {};
  bool read = pipe && std::fgets(line, sizeof line, pipe);
  if (pipe)
    ::pclose(pipe);
  EXPECT_TRUE(read) << command;
  return fn::String(line).trim();
}

/// A file of `size` bytes, sparse where nothing is written, with `pattern` bytes written at
/// each of `offsets`.
void makeFile(fn::String const& path,
              int64_t size,
              std::vector<int64_t> const& offsets = {},
              std::string_view pattern = {}) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, size), 0);
  for (int64_t offset : offsets)
    ASSERT_EQ(::pwrite(fd, pattern.data(), pattern.size(), offset), ssize_t(pattern.size()));
  ::close(fd);
}

/// Bytes that differ from one 64 KiB sample to the next.
std::vector<int64_t> everyBlock(int64_t size) {
  std::vector<int64_t> offsets;
  for (int64_t at = 0; at + 4096 <= size; at += 4096)
    offsets.push_back(at);
  return offsets;
}

TEST(ResourceHash, MatchesTheSampledSha1OfAnIndependentReader) {
  TemporaryRoot root;
  constexpr int64_t GiB = int64_t(1) << 30;
  struct Case {
    char const* name;
    int64_t size;
    std::vector<int64_t> written;
  };
  for (auto const& c : std::vector<Case>{
           {"empty", 0, {}},
           {"just under the limit, hashed whole", 327679, everyBlock(327679)},
           {"at the limit: five samples, no tail", 327680, everyBlock(327680)},
           {"short tail", 400000, everyBlock(400000)},
           {"sparse 10 GiB", 10 * GiB, {0, 2 * GiB + 100, 8 * GiB + 65535, 10 * GiB - 70000}},
       }) {
    SCOPED_TRACE(c.name);
    fn::String path = root.file("media");
    makeFile(path, c.size, c.written, "0123456789abcdef");
    fn::String hash = ResourceHash::forFile(path);
    EXPECT_EQ(hash, referenceHash(path));
    EXPECT_EQ(hash.size(), 40u);
  }
  // An empty file hashes its size alone: eight zero bytes.
  makeFile(root.file("empty"), 0);
  EXPECT_EQ(ResourceHash::forFile(root.file("empty")), "05fe405753166f125559e7c9ac558654f107c7e9");
}

TEST(ResourceHash, LargeFilesDifferingOnlyBetweenSamplesShareTheHash) {
  TemporaryRoot root;
  int64_t const size = 100 * 1024 * 1024;
  makeFile(root.file("a"), size, {size / 5 + 70000}, "A");
  makeFile(root.file("b"), size, {size / 5 + 70000}, "B");
  makeFile(root.file("c"), size + 1);
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

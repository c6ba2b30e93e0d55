#include "foundation/file_stream.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "foundation/buffered_output_stream.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/transform.h"

namespace fn {
namespace {

// Records the runs it is given and upper-cases them.
struct Upper : Transform {
  void transform(uint8_t const* bytes, size_t count, OutputStream& output) override {
    runs.push_back(count);
    String text(reinterpret_cast<char const*>(bytes), count);
    for (auto& c : text)
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    output.write(text.data(), text.size());
  }
  std::vector<size_t> runs;
};

// Counts what reaches the end of a chain.
struct Counting : OutputStream {
  void write(void const* bytes, size_t count) override {
    writes.push_back(count);
    data.append(bytes, count);
  }
  void flush() override { ++flushes; }
  void close() override { ++closes; }
  std::vector<size_t> writes;
  ByteArray data;
  int flushes = 0;
  int closes = 0;
};

TEST(Streams, BufferingAndTransformsPassBytesInOrder) {
  Counting sink;
  BufferedOutputStream buffered(sink, 8);
  Upper upper;
  TransformOutputStream stream(buffered, upper);
  stream.write("abc", 3);
  stream.write("defgh", 5);
  EXPECT_TRUE(sink.writes.empty());
  stream.write("i", 1);
  EXPECT_EQ(sink.writes, std::vector<size_t>{8});
  stream.write("0123456789", 10);  // larger than the buffer: written through
  stream.close();
  EXPECT_EQ(sink.data, ByteArray(std::string_view("ABCDEFGHI0123456789")));
  EXPECT_EQ(upper.runs, (std::vector<size_t>{3, 5, 1, 10}));
  EXPECT_EQ(sink.closes, 1);
  EXPECT_GE(sink.flushes, 1);

  // Without close() nothing buffered is written.
  Counting abandoned;
  {
    BufferedOutputStream partial(abandoned, 8);
    partial.write("abc", 3);
  }
  EXPECT_TRUE(abandoned.data.empty());
}

TEST(Streams, FilesAreWrittenSyncedAndRead) {
  char pattern[] = "/tmp/lumaren-streams-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  String path = String(pattern) + "/file";
  {
    FileOutputStream out(path, 0600);
    out.write("hello ", 6);
    out.write("world", 5);
    out.sync();
    out.close();
    out.close();
    EXPECT_THROW(out.write("x", 1), FileException);
  }
  EXPECT_EQ(File(path).readAll(), ByteArray(std::string_view("hello world")));
  EXPECT_EQ(std::filesystem::status(std::string(path)).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  FileInputStream in(path);
  EXPECT_EQ(StreamReader(in).readEverything(), ByteArray(std::string_view("hello world")));
  File(String(pattern)).sync();

  try {
    FileInputStream missing(String(pattern) + "/missing");
    FAIL();
  } catch (FileException const& e) {
    EXPECT_EQ(e.info().path, String(pattern) + "/missing");
    EXPECT_EQ(e.info().errnoValue, ENOENT);
  }
  EXPECT_THROW(FileOutputStream(String(pattern) + "/no/such/dir"), FileException);
  std::filesystem::remove_all(pattern);
}

}  // namespace
}  // namespace fn

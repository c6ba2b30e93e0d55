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

// Buffering and transforms in front of a file, the chain the preferences writer uses.
TEST(Streams, BufferedTransformedFilesAreWrittenInOrderSyncedAndRead) {
  char pattern[] = "/tmp/lumaren-streams-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  String path = String(pattern) + "/file";
  Upper upper;
  {
    FileOutputStream file(path, 0600);
    BufferedOutputStream buffered(file, 8);
    TransformOutputStream stream(buffered, upper);
    stream.write("abc", 3);
    stream.write("defgh", 5);
    stream.write("i", 1);
    stream.write("0123456789", 10);  // larger than the buffer: written through
    {
      BufferedOutputStream abandoned(file, 8);  // without close() nothing buffered is written
      abandoned.write("lost", 4);
    }
    buffered.flush();
    file.sync();
    stream.close();
    file.close();  // a second close is harmless
    EXPECT_THROW(file.write("x", 1), FileException);
  }
  EXPECT_EQ(upper.runs, (std::vector<size_t>{3, 5, 1, 10}));
  EXPECT_EQ(File(path).readAll(), ByteArray(std::string_view("ABCDEFGHI0123456789")));
  EXPECT_EQ(std::filesystem::status(std::string(path)).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  FileInputStream in(path);
  EXPECT_EQ(StreamReader(in).readEverything(), File(path).readAll());
  File(String(pattern)).sync();

  EXPECT_THROW(FileInputStream(String(pattern) + "/missing"), FileException);
  EXPECT_THROW(FileOutputStream(String(pattern) + "/no/such/dir"), FileException);
  std::filesystem::remove_all(pattern);
}

}  // namespace
}  // namespace fn

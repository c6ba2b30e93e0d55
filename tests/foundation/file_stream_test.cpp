#include "foundation/file_stream.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "foundation/buffered_output_stream.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "platform.h"

namespace fn {
namespace {

// The full chain the preferences writer uses is proven by its suite; here, the edges.
TEST(Streams, BufferedFilesAreWrittenInOrderSyncedAndReadWithTheirErrors) {
  String pattern = testing_support::makeTemporaryDirectory("lumaren-streams");
  String path = String(pattern) + "/file";
  {
    FileOutputStream file(path, 0600);
    BufferedOutputStream buffered(file, 8);
    buffered.write("abc", 3);
    buffered.write("defghi", 6);
    buffered.write("0123456789", 10);  // larger than the buffer: written through
    {
      BufferedOutputStream abandoned(file, 8);  // without close() nothing buffered is written
      abandoned.write("lost", 4);
    }
    buffered.flush();
    file.sync();
    buffered.close();
    file.close();  // a second close is harmless
    EXPECT_THROW(file.write("x", 1), FileException);
  }
  EXPECT_EQ(File(path).readAll(), ByteArray(std::string_view("abcdefghi0123456789")));
  if (!testing_support::isWindows()) {
    EXPECT_EQ(
        std::filesystem::status(std::string(path)).permissions() & std::filesystem::perms::all,
        std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  }
  {
    // Closed before the removal below: Windows does not remove open files.
    FileInputStream in(path);
    EXPECT_EQ(StreamReader(in).readEverything(), File(path).readAll());
  }
  File(String(pattern)).sync();
  EXPECT_THROW(FileInputStream(String(pattern) + "/missing"), FileException);
  EXPECT_THROW(FileOutputStream(String(pattern) + "/no/such/dir"), FileException);
  std::filesystem::remove_all(std::string(pattern));
}

}  // namespace
}  // namespace fn

#include "foundation/byte_array.h"

#include <gtest/gtest.h>

#include "foundation/exception.h"

namespace fn {
namespace {

// Long Base64 text in files is proven by the preferences suite; here, the edges. SHA-256, a
// call into libsodium, is proven by the inspector suite's published digest.
TEST(ByteArray, Base64UsesTheStandardAlphabetWithPaddingAndLineBreaks) {
  EXPECT_EQ((ByteArray{0xfb, 0xff}).base64(), "+/8=");
  ByteArray bytes(54, 0);  // exactly 72 characters: no break
  EXPECT_EQ(bytes.base64(72), String(72, 'A'));
  bytes.push_back(0);
  EXPECT_EQ(bytes.base64(72), String(72, 'A') + "\r\nAA==");
  EXPECT_EQ(ByteArray::fromBase64(" Zm9v\nYmFy\r\n"), ByteArray(std::string_view("foobar")));
  for (std::string_view bad : {"Zg", "Zg=", "Z===", "Zm9v!", "-_8=", "Zg==Zg=="})
    EXPECT_THROW(ByteArray::fromBase64(bad), DataFormatException) << bad;
}

// Every length takes its own path through the inline copy: each must copy exactly its bytes.
TEST(ByteArray, CopyBytesCopiesEveryLengthExactly) {
  uint8_t from[20], to[22];
  for (size_t i = 0; i < sizeof from; ++i)
    from[i] = static_cast<uint8_t>(i + 1);
  for (size_t n = 0; n <= sizeof from; ++n) {
    std::fill(std::begin(to), std::end(to), 0);
    copyBytes(to + 1, from, n);
    EXPECT_TRUE(std::equal(from, from + n, to + 1)) << n;
    EXPECT_EQ(to[0], 0) << n;
    EXPECT_EQ(to[n + 1], 0) << n;
  }
}

}  // namespace
}  // namespace fn

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

}  // namespace
}  // namespace fn

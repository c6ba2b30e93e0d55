#include "foundation/byte_array.h"

#include <gtest/gtest.h>

#include "foundation/exception.h"

namespace fn {
namespace {

// Long Base64 text in files is proven by the preferences suite; here, the edges.
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

TEST(ByteArray, SHA256MatchesThePublishedTestVectors) {
  EXPECT_EQ(ByteArray().SHA256().toHex(),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(ByteArray(std::string_view("abc")).SHA256().toHex(),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

}  // namespace
}  // namespace fn

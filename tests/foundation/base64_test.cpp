#include <gtest/gtest.h>

#include "foundation/byte_array.h"
#include "foundation/exception.h"

namespace fn {
namespace {

TEST(Base64, StandardAlphabetWithPaddingAndLineBreaks) {
  EXPECT_EQ(ByteArray().base64(), "");
  EXPECT_EQ(ByteArray(std::string_view("f")).base64(), "Zg==");
  EXPECT_EQ(ByteArray(std::string_view("foobar")).base64(72), "Zm9vYmFy");
  EXPECT_EQ((ByteArray{0xfb, 0xff}).base64(), "+/8=");

  ByteArray bytes(54, 0);  // exactly 72 characters: no break
  EXPECT_EQ(bytes.base64(72), String(72, 'A'));
  bytes.push_back(0);
  EXPECT_EQ(bytes.base64(72), String(72, 'A') + "\r\nAA==");
  ByteArray large(1000);
  for (size_t i = 0; i < large.size(); ++i)
    large[i] = static_cast<uint8_t>(i * 31);
  String text = large.base64(72);
  for (auto const& line : text.split("\r\n"))
    EXPECT_LE(line.size(), 72u);
  EXPECT_EQ(ByteArray::fromBase64(text), large);
  EXPECT_EQ(ByteArray::fromBase64(large.base64()), large);
}

TEST(Base64, DecodingIgnoresBlanksAndRejectsTheRest) {
  EXPECT_EQ(ByteArray::fromBase64(" Zm9v\nYmFy\r\n"), ByteArray(std::string_view("foobar")));
  EXPECT_TRUE(ByteArray::fromBase64("").empty());
  for (std::string_view bad : {"Zg", "Zg=", "Z===", "Zm9v!", "-_8=", "Zg==Zg=="})
    EXPECT_THROW(ByteArray::fromBase64(bad), DataFormatException) << bad;
}

}  // namespace
}  // namespace fn

#include <gtest/gtest.h>

#include "foundation/byte_array.h"

namespace fn {
namespace {

TEST(Digest, SHA256MatchesThePublishedTestVectors) {
  EXPECT_EQ(ByteArray().SHA256().toHex(),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(ByteArray(std::string_view("abc")).SHA256().toHex(),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(ByteArray(std::string_view("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"))
                .SHA256()
                .toHex(),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

}  // namespace
}  // namespace fn

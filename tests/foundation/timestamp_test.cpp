#include "foundation/timestamp.h"

#include <gtest/gtest.h>

#include "foundation/exception.h"

namespace fn {
namespace {

TEST(Timestamp, Rfc1123FormInUtc) {
  EXPECT_EQ(Timestamp::fromUnixSeconds(784111777).toRfc1123(), "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(Timestamp::fromUnixSeconds(0).toRfc1123(), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(Timestamp::fromUnixSeconds(-1).toRfc1123(), "Wed, 31 Dec 1969 23:59:59 GMT");
  EXPECT_EQ(Timestamp::fromUnixSeconds(951782400).toRfc1123(), "Tue, 29 Feb 2000 00:00:00 GMT");
  // Fractions of a second are dropped, not rounded.
  Timestamp late(Timestamp::TimePoint(std::chrono::milliseconds(999)));
  EXPECT_EQ(late.toRfc1123(), "Thu, 01 Jan 1970 00:00:00 GMT");
}

TEST(Timestamp, ParsingAcceptsZonesAndRejectsOtherText) {
  auto expected = Timestamp::fromUnixSeconds(784111777);
  for (std::string_view text :
       {"Sun, 06 Nov 1994 08:49:37 GMT", "06 Nov 1994 08:49:37 GMT", "sun, 6 nov 1994 08:49:37 UT",
        "Sun, 06 Nov 1994 10:49:37 +0200", "Sun, 06 Nov 1994 03:19:37 -0530",
        "Sun, 06 Nov 1994 08:49:37 Z", "  Sun, 06 Nov 1994 08:49:37 UTC  "}) {
    EXPECT_EQ(Timestamp::fromRfc1123(text), expected) << text;
  }
  EXPECT_EQ(Timestamp::fromRfc1123("Sun, 06 Nov 1994 08:49 GMT"),
            Timestamp::fromUnixSeconds(784111740));
  for (std::string_view text :
       {"", "yesterday", "Sun 06 Nov 1994 08:49:37 GMT", "Sun, 31 Feb 1994 08:49:37 GMT",
        "Sun, 06 Nov 1994 24:00:00 GMT", "Sun, 06 Nov 1994 08:49:37", "Sun, 06 Nov 94 08:49:37 GMT",
        "Sun, 06 Nov 1994 08:49:37 GMT x", "Sun, 06 Nov 1994 08:49:37 +01",
        "Xyz, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Foo 1994 08:49:37 GMT"}) {
    EXPECT_THROW(Timestamp::fromRfc1123(text), DataFormatException) << text;
  }
  auto now = Timestamp::now();
  EXPECT_EQ(Timestamp::fromRfc1123(now.toRfc1123()).timePoint(),
            std::chrono::floor<std::chrono::seconds>(now.timePoint()));
}

}  // namespace
}  // namespace fn

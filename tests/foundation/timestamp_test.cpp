#include "foundation/timestamp.h"

#include <gtest/gtest.h>

#include "foundation/exception.h"

namespace fn {
namespace {

TEST(Timestamp, Rfc1123FormInUtcAcceptsZonesAndRejectsOtherText) {
  EXPECT_EQ(Timestamp::fromUnixSeconds(951782400).toRfc1123(), "Tue, 29 Feb 2000 00:00:00 GMT");
  // Fractions of a second are dropped, not rounded.
  Timestamp late(Timestamp::TimePoint(std::chrono::milliseconds(999)));
  EXPECT_EQ(late.toRfc1123(), "Thu, 01 Jan 1970 00:00:00 GMT");

  auto expected = Timestamp::fromUnixSeconds(784111777);
  EXPECT_EQ(expected.toRfc1123(), "Sun, 06 Nov 1994 08:49:37 GMT");
  for (std::string_view text :
       {"06 Nov 1994 08:49:37 GMT", "sun, 6 nov 1994 08:49:37 UT",
        "Sun, 06 Nov 1994 03:19:37 -0530", "  Sun, 06 Nov 1994 08:49:37 Z  "})
    EXPECT_EQ(Timestamp::fromRfc1123(text), expected) << text;
  EXPECT_EQ(Timestamp::fromRfc1123("Sun, 06 Nov 1994 08:49 GMT"),
            Timestamp::fromUnixSeconds(784111740));
  for (std::string_view text :
       {"", "Sun 06 Nov 1994 08:49:37 GMT", "Sun, 31 Feb 1994 08:49:37 GMT",
        "Sun, 06 Nov 1994 24:00:00 GMT", "Sun, 06 Nov 1994 08:49:37", "Sun, 06 Nov 94 08:49:37 GMT",
        "Sun, 06 Nov 1994 08:49:37 GMT x", "Sun, 06 Nov 1994 08:49:37 +01",
        "Xyz, 06 Nov 1994 08:49:37 GMT", "Sun, 06 Foo 1994 08:49:37 GMT"})
    EXPECT_THROW(Timestamp::fromRfc1123(text), DataFormatException) << text;
}

}  // namespace
}  // namespace fn

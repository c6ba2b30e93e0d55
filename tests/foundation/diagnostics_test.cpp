#include <gtest/gtest.h>

#include "foundation/assert.h"
#include "foundation/exception.h"
#include "foundation/logging/category.h"
#include "foundation/uv/status.h"
#include "log_capture.h"
#include "support.h"

namespace fn {
namespace {

TEST(Assertion, ReportsConditionValuesAndLogsOneLine) {
  testing_support::LogCapture log;
  testing::AssertionRecorder recorder;
  int answer = 41;
  FN_ASSERT(answer == 42, answer, "text");
  FN_ASSERT(answer == 41, answer);

  auto failures = recorder.failures();
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_TRUE(failures[0].source.endsWith("tests/foundation/diagnostics_test"));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].category, "fn.assert");
  EXPECT_EQ(log.lines()[0].text,
            fmt::format("Assertion failed in TestBody ({}:{}): answer == 42 with 41, text",
                        failures[0].source, failures[0].line));
}

TEST(Logging, ThresholdsFollowTheLongestMatchingPrefixRule) {
  logging::Category ipc("ipc");
  logging::Category dispatcher("ipc.dispatcher");
  logging::Category lookalike("ipcx");
  logging::Category other("media");
  auto& manager = logging::CategoryManager::instance();
  manager.applyRules(" *=4, ipc=7 ,bogus, ipc.dispatcher=nope");
  manager.setThreshold("ipc.dispatcher", 2);
  logging::Category late("ipc.dispatcher.late");  // rules apply to categories made later
  EXPECT_EQ(ipc.threshold(), 7);
  EXPECT_EQ(lookalike.threshold(), 4);
  EXPECT_EQ(dispatcher.threshold(), 2);
  EXPECT_EQ(late.threshold(), 2);

  testing_support::LogCapture log;
  other.log(logging::DBG, "hidden {}", 1);
  other.log(logging::WRN, "shown {} {}", 2, String("two"));
  dispatcher.log(logging::FIX, "hidden");
  manager.applyRules("ipc=4,ipc.dispatcher=4");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].priority, logging::WRN);
  EXPECT_EQ(log.lines()[0].text, "shown 2 two");

  // The names console lines show for the priorities.
  String names;
  for (int p = 0; p <= 8; ++p)
    names += String(logging::priorityName(p)) + " ";
  EXPECT_EQ(names, "??? ERR WRN FIX INF DBG LOG TRC ??? ");
}

// The exceptions' text forms, with their path, errno and detail, are compared whole by the
// database, password and tool suites; here, libuv's status.
TEST(UvStatus, NamesTheOperationAndTheErrorAndThrowsOnlyOnAnError) {
  uv::Status refused("connect", UV_ECONNREFUSED);
  EXPECT_EQ(refused.toString(), "connect: ECONNREFUSED (connection refused)");
  EXPECT_THROW(refused.throwOnError(), uv::UVException);
  EXPECT_NO_THROW(uv::Status("connect", 0).throwOnError());
}

}  // namespace
}  // namespace fn

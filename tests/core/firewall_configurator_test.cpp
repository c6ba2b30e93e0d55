#include "core/firewall_configurator.h"

#include <gtest/gtest.h>

#include "test_support.h"

namespace core {
namespace {

TEST(FirewallConfigurator, OutsideWindowsEveryOperationFailsAfterOneClearLine) {
  for (auto create : {&FirewallConfigurator::createBaseConfigurator,
                      &FirewallConfigurator::createAdvancedConfigurator}) {
    testing::LogCapture log;
    auto configurator = create();
    ASSERT_NE(configurator, nullptr);
    EXPECT_FALSE(configurator->initialize(true));
    bool enabled = true, inbound = true, outbound = true;
    EXPECT_FALSE(configurator->isFirewallEnabled(enabled));
    EXPECT_FALSE(configurator->isApplicationAuthorized(inbound, outbound, "/usr/bin/lumaren"));
    EXPECT_FALSE(configurator->authorizeApplication("/usr/bin/lumaren", "Lumaren", true, true));
    auto lines = log.linesOf("core.firewall");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, fn::logging::ERR);
    EXPECT_EQ(lines[0].text,
              "The firewall configurator exists only on Windows; nothing is configured here");
  }
}

}  // namespace
}  // namespace core

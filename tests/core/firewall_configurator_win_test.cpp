// The firewall configurators against the system's firewall objects. What can run without an
// administrator's consent is checked everywhere; what follows from Wine's partial firewall
// (no elevation moniker, no profile queries or rule enumeration in the newer interface) only
// under Wine.

#include <windows.h>

#include <gtest/gtest.h>

#include "core/firewall_configurator.h"
#include "log_capture.h"

namespace core {
namespace {

using testing_support::LogCapture;

constexpr char const* PATH = "C:\\Program Files\\Lumaren\\lumaren-hub.exe";

bool underWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

std::vector<fn::String> errors(LogCapture const& log) {
  std::vector<fn::String> texts;
  for (auto const& line : log.linesOf("core.firewall")) {
    EXPECT_EQ(line.priority, fn::logging::ERR) << line.text;
    texts.push_back(line.text);
  }
  return texts;
}

TEST(FirewallConfigurator, BeforeInitialisationNothingIsAskedAndNothingNeededIsDone) {
  for (auto create : {&FirewallConfigurator::createBaseConfigurator,
                      &FirewallConfigurator::createAdvancedConfigurator}) {
    LogCapture log;
    auto configurator = create();
    bool enabled = true, inbound = true, outbound = true;
    EXPECT_FALSE(configurator->isFirewallEnabled(enabled));
    EXPECT_FALSE(configurator->isApplicationAuthorized(inbound, outbound, PATH));
    EXPECT_EQ(errors(log),
              std::vector<fn::String>(2, "Firewall profile has not been initialized yet!"));
  }
  // With no direction asked for, the older interface is not even set up.
  LogCapture log;
  auto base = FirewallConfigurator::createBaseConfigurator();
  EXPECT_TRUE(base->authorizeApplication(PATH, "Lumaren", false, false));
  bool enabled = false;
  EXPECT_FALSE(base->isFirewallEnabled(enabled));
  EXPECT_EQ(errors(log), std::vector<fn::String>{"Firewall profile has not been initialized yet!"});
}

TEST(FirewallConfigurator, WineAnswersWithoutElevationAndRefusesIt) {
  if (!underWine())
    GTEST_SKIP() << "the expectations follow Wine's firewall objects";
  LogCapture log;
  auto base = FirewallConfigurator::createBaseConfigurator();
  ASSERT_TRUE(base->initialize(false));
  ASSERT_TRUE(base->initialize(false));
  bool enabled = true, inbound = true, outbound = true;
  EXPECT_TRUE(base->isFirewallEnabled(enabled));
  EXPECT_FALSE(enabled);
  // Wine finds every application in the list, and none of them enabled.
  EXPECT_TRUE(base->isApplicationAuthorized(inbound, outbound, PATH));
  EXPECT_FALSE(inbound || outbound);
  EXPECT_FALSE(base->authorizeApplication(PATH, "Lumaren", true, false));
  // A failed elevation leaves the configurator uninitialised.
  EXPECT_FALSE(base->isFirewallEnabled(enabled));
  EXPECT_EQ(errors(log),
            (std::vector<fn::String>{
                fmt::format("Authorized application {} is disabled in the firewall.", PATH),
                "Could not get elevated privileges!",
                "Firewall profile has not been initialized yet!",
            }));

  LogCapture advancedLog;
  auto advanced = FirewallConfigurator::createAdvancedConfigurator();
  ASSERT_TRUE(advanced->initialize(false));
  EXPECT_FALSE(advanced->isFirewallEnabled(enabled));
  EXPECT_FALSE(advanced->isApplicationAuthorized(inbound, outbound, PATH));
  EXPECT_FALSE(advanced->authorizeApplication(PATH, "Lumaren", true, true));
  auto texts = errors(advancedLog);
  ASSERT_EQ(texts.size(), 3u);
  // E_NOTIMPL for the profile types; the moniker's failure is Wine's to choose.
  EXPECT_EQ(texts[0], "get_CurrentProfileTypes failed: 0x80004001\n");
  EXPECT_TRUE(texts[1].startsWith("CoCreateInstance for INetFwPolicy2 failed: 0x8") &&
              texts[1].endsWith("\n") && texts[1].size() == 54)
      << texts[1];
  EXPECT_EQ(texts[2], "Could not get elevated privileges!");
}

}  // namespace
}  // namespace core

#include <gtest/gtest.h>

#include "foundation/exception.h"
#include "hub/config.h"

namespace {

TEST(HubConfig, ReadsTheDocumentedForm) {
  auto config = hub::parseConfig(R"({
    "timeout": 12,
    "modules": [
      { "name": "announcer", "inProcess": true, "launchFirst": true },
      { "name": "greeter" }
    ]
  })");
  EXPECT_EQ(config.timeout, fn::Duration::seconds(12));
  ASSERT_EQ(config.modules.size(), 2u);
  EXPECT_EQ(config.modules[0].name, "announcer");
  EXPECT_TRUE(config.modules[0].inProcess);
  EXPECT_TRUE(config.modules[0].launchFirst);
  EXPECT_EQ(config.modules[1].name, "greeter");
  EXPECT_FALSE(config.modules[1].inProcess);
  EXPECT_FALSE(config.modules[1].launchFirst);

  // Everything is optional: an empty object is a hub without modules and the default time-out.
  auto empty = hub::parseConfig("{}");
  EXPECT_EQ(empty.timeout, fn::Duration::seconds(30));
  EXPECT_TRUE(empty.modules.empty());
}

TEST(HubConfig, RejectsWhatItCannotUseNamingTheEntry) {
  struct Case {
    char const* text;
    char const* message;
  };
  Case const cases[] = {
      {"[]", "the configuration must be a JSON object"},
      {R"({"modules": [], "timout": 3})", "unknown key \"timout\""},
      {R"({"timeout": 0})", "\"timeout\" must be a number of seconds between 1 and 3600"},
      {R"({"timeout": 2.5})", "\"timeout\" must be a number of seconds between 1 and 3600"},
      {R"({"timeout": 18446744073709551615})",
       "\"timeout\" must be a number of seconds between 1 and 3600"},
      {R"({"modules": {}})", "\"modules\" must be an array"},
      {R"({"modules": [7]})", "module 1: expected an object"},
      {R"({"modules": [{"name": "../evil"}]})",
       "module 1: \"name\" must be a library name without a directory"},
      {R"({"modules": [{"name": "a", "inProces": true}]})", "module 1: unknown key \"inProces\""},
      {R"({"modules": [{"name": "a", "inProcess": "yes"}]})",
       "module a: \"inProcess\" must be true or false"},
      {R"({"modules": [{"name": "a", "launchFirst": true}]})",
       "module a: only in-process modules can be launched first"},
      {R"({"modules": [{"name": "a"}, {"name": "a"}]})", "module a is listed twice"},
      {R"({"modules": [{"name": "a", "inProcess": true, "launchFirst": true},
                       {"name": "b", "inProcess": true, "launchFirst": true}]})",
       "module b: only one module can be launched first"},
  };
  for (auto const& c : cases) {
    try {
      hub::parseConfig(c.text, "/etc/hub.json");
      ADD_FAILURE() << "accepted " << c.text;
    } catch (fn::DataFormatException const& e) {
      EXPECT_EQ(e.message(), c.message) << c.text;
      EXPECT_EQ(e.info().path, "/etc/hub.json");
    }
  }
  // Malformed JSON is reported with the file it came from.
  try {
    hub::parseConfig("{\"modules\": [", "/etc/hub.json");
    ADD_FAILURE() << "accepted malformed JSON";
  } catch (fn::DataFormatException const& e) {
    EXPECT_EQ(e.info().path, "/etc/hub.json");
  }
}

}  // namespace

#include <gtest/gtest.h>

#include "foundation/exception.h"
#include "hub/config.h"

namespace {

// The full form is read by the hub's own suite, which runs the real hub from a file.
TEST(HubConfig, EverythingIsOptional) {
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
      {"{\"modules\": [", ""},  // malformed JSON, in the parser's words
      {"[]", "the configuration must be a JSON object"},
      {R"({"modules": [], "timout": 3})", "unknown key \"timout\""},
      {R"({"timeout": 0})", "\"timeout\" must be a number of seconds between 1 and 3600"},
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
      EXPECT_EQ(*c.message ? fn::String(e.message()) : fn::String(), c.message) << c.text;
      EXPECT_EQ(e.info().path, "/etc/hub.json");
    }
  }
}

}  // namespace

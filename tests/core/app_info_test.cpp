#include "core/app_info.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cstdio>
#include <optional>

#include "child_process.h"
#include "child_role.h"
#include "core/preferences.h"
#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "foundation/json.h"
#include "foundation/path_manager.h"
#include "loop_runner.h"
#include "test_support.h"

namespace core {
namespace {

using testing::LogCapture;
using testing::TemporaryRoot;

// The child role "--identity": prints what this process's AppInfo says, as JSON.
int reportIdentity(int, char**) {
  LogCapture log;
  fn::Value report = fn::Value::map();
  try {
    AppInfo& info = AppInfo::instance();
    report["shortName"] = info.applicationShortName();
    report["displayName"] = info.applicationDisplayName();
    report["publicVersion"] = info.applicationPublicVersion();
    report["internalVersion"] = info.applicationInternalVersion();
    report["osName"] = info.operatingSystemName();
    report["osVersion"] = info.operatingSystemVersion();
    report["instanceId"] = info.instanceId();
    report["instanceIdAgain"] = info.instanceId();
    report["errors"] = static_cast<int64_t>(log.linesOf("fn.exception").size());
  } catch (fn::Exception const& e) {
    report["exception"] = e.className();
    report["message"] = e.message();
  }
  fn::ByteArray text;
  fn::ByteArrayOutputStream out(text);
  fn::json::serialize(report, out);
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() ? 0 : 1;
}

[[maybe_unused]] bool const identityRole =
    testing_support::registerChildRole("--identity", &reportIdentity);

/// What a child process's AppInfo says, the child inheriting this environment changed by
/// `variables` (an empty value unsets one).
fn::Value childIdentity(std::vector<std::pair<char const*, fn::String>> const& variables = {}) {
  std::vector<std::pair<char const*, std::optional<std::string>>> saved;
  for (auto const& [name, value] : variables) {
    char const* old = ::getenv(name);
    saved.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    value.empty() ? ::unsetenv(name) : ::setenv(name, value.c_str(), 1);
  }
  fn::uv::Loop loop;
  auto child = testing_support::ChildProcess::start(
      loop, {.file = fn::uv::executablePath(), .arguments = {"--identity"}, .capture = true});
  EXPECT_EQ(child->waitForExit(), 0) << child->err();
  fn::String out = child->out();
  child.reset();
  testing_support::drainLoop(loop);
  for (auto const& [name, value] : saved)
    value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
  return fn::json::deserialize(out);
}

bool looksLikeUuid(fn::String const& text) {
  if (text.size() != 36)
    return false;
  for (size_t i = 0; i < text.size(); ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i])))
      return false;
  }
  return true;
}

TEST(AppInfo, TheProductTravelsToChildProcessesThroughTheEnvironment) {
  TemporaryRoot root;
  AppInfo::initialize(AppInfo::App::ORBISANT);
  EXPECT_EQ(fn::Environment::get("ManagerAppType"), "1");
  AppInfo& info = AppInfo::instance();
  EXPECT_EQ(&info, &AppInfo::instance());
  EXPECT_EQ(info.applicationShortName(), "Orbisant");
  EXPECT_EQ(info.applicationDisplayName(), "Orbisant");
  EXPECT_EQ(info.applicationPublicVersion(), "3.0.0-alpha0");
  EXPECT_EQ(info.applicationInternalVersion(), 300.0);
  EXPECT_EQ(fn::PathManager::instance().applicationName(), "Orbisant");

  // The child never calls initialize().
  fn::Value child = childIdentity();
  EXPECT_EQ(child.get("shortName"), fn::Value("Orbisant"));
  EXPECT_EQ(child.get("publicVersion"), fn::Value("3.0.0-alpha0"));
  EXPECT_EQ(child.get("internalVersion").asDouble(), 300.0);
  // Its files are the product's own.
  EXPECT_TRUE(fn::File(root.path() + "/data/Orbisant/Instance.prefs").exists());

  child = childIdentity({{"ManagerAppType", "0"}});
  EXPECT_EQ(child.get("shortName"), fn::Value("Lumaren"));
  EXPECT_EQ(child.get("displayName"), fn::Value("Lumaren"));
  EXPECT_EQ(child.get("publicVersion"), fn::Value("3.3.7"));
  EXPECT_EQ(child.get("internalVersion").asDouble(), 168700.0);
  utsname names{};
  ASSERT_EQ(::uname(&names), 0);
  EXPECT_EQ(child.get("osName"), fn::Value("Linux"));
  EXPECT_EQ(child.get("osVersion"), fn::Value(names.release));

  // Without a product there is nothing to describe: a clear failure, not a blank object.
  for (char const* missing : {"", "2", "-1", "one", "01x"}) {
    child = childIdentity({{"ManagerAppType", missing}});
    EXPECT_EQ(child.get("exception"), fn::Value("IllegalStateException")) << missing;
    EXPECT_NE(child.get("message", "").asString().find("ManagerAppType"), fn::String::npos);
    EXPECT_FALSE(child.contains("shortName"));
  }
}

TEST(AppInfo, TheInstanceIdIsCreatedOnceAndSharedByEveryProcess) {
  TemporaryRoot root;
  std::vector<std::pair<char const*, fn::String>> lumaren = {{"ManagerAppType", "0"}};
  fn::String path = root.path() + "/data/Lumaren/Instance.prefs";
  ASSERT_FALSE(fn::File(path).exists());

  fn::Value first = childIdentity(lumaren);
  fn::String id = first.get("instanceId", "").asString();
  EXPECT_TRUE(looksLikeUuid(id)) << id;
  EXPECT_EQ(first.get("instanceIdAgain"), fn::Value(id));
  Preferences stored(path);
  stored.reload();
  EXPECT_EQ(stored.root(), fn::Value::map({{"instanceId", id}}));

  struct stat before {};
  ASSERT_EQ(::stat(path.c_str(), &before), 0);
  fn::Value second = childIdentity(lumaren);
  EXPECT_EQ(second.get("instanceId"), fn::Value(id));
  struct stat after {};
  ASSERT_EQ(::stat(path.c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino) << "the file was rewritten";

  // An empty identifier is replaced by a new one, other members are kept.
  stored.root()["instanceId"] = "";
  stored.root()["other"] = 5;
  stored.save();
  fn::Value third = childIdentity(lumaren);
  fn::String replaced = third.get("instanceId", "").asString();
  EXPECT_TRUE(looksLikeUuid(replaced)) << replaced;
  EXPECT_NE(replaced, id);
  stored.reload();
  EXPECT_EQ(stored.root(), fn::Value::map({{"instanceId", replaced}, {"other", 5}}));

  // A damaged file is logged and left alone; the identifier is empty meanwhile.
  fn::File(path).writeAll(fn::ByteArray(std::string_view("\"instanceId\": ")));
  fn::Value damaged = childIdentity(lumaren);
  EXPECT_EQ(damaged.get("instanceId"), fn::Value(""));
  EXPECT_EQ(damaged.get("errors"), fn::Value(2));  // one per call
  EXPECT_EQ(fn::File(path).readAll(), fn::ByteArray(std::string_view("\"instanceId\": ")));
}

}  // namespace
}  // namespace core

#include "core/app_info.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "child_role.h"
#include "core/preferences.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "test_support.h"

namespace core {
namespace {

using testing::LogCapture;
using testing::TemporaryRoot;

// The child role "--identity": prints what this process's AppInfo says: the instance id (asked
// twice) and the errors logged meanwhile, then the product and the system, then the data
// directory that was asked for before anything read the product, as an early singleton would.
int reportIdentity(int, char**) {
  LogCapture log;
  try {
    fn::String data = fn::PathManager::instance().getPath(fn::PathManager::USER_DATA);
    AppInfo& info = AppInfo::instance();
    fn::String id = info.instanceId();
    if (id != info.instanceId())
      id = "unstable";
    fmt::print("{} {}\n{} {} {} {}\n{}\n", id, log.linesOf("fn.exception").size(),
               info.applicationShortName(), info.applicationPublicVersion(),
               info.operatingSystemName(), info.operatingSystemVersion(), data);
  } catch (fn::Exception const& e) {
    fmt::print("{}: {}\n", e.className(), e.message());
  }
  return 0;
}

[[maybe_unused]] bool const identityRole =
    testing_support::registerChildRole("--identity", &reportIdentity);

/// What a child process's AppInfo says, the variable set to `product` first unless null.
fn::String childIdentity(char const* product = "0") {
  if (product)
    fn::Environment::set("ManagerAppType", product);
  return testing::runToEnd({"--identity"}).out;
}

TEST(AppInfo, TheProductTravelsToChildProcessesThroughTheEnvironment) {
  TemporaryRoot root;
  AppInfo::initialize(AppInfo::App::ORBISANT);
  EXPECT_EQ(fn::PathManager::instance().applicationName(), "Orbisant");

  // The child never calls initialize(); its files are the product's own, also those asked
  // for before it looked at the product.
  fn::String child = childIdentity(nullptr);
  EXPECT_NE(child.find("\nOrbisant 3.0.0-alpha0 "), fn::String::npos) << child;
  EXPECT_TRUE(child.endsWith("\n" + root.path() + "/data/Orbisant\n")) << child;
  EXPECT_TRUE(fn::File(root.path() + "/data/Orbisant/Instance.prefs").exists());
  if (!testing_support::isWindows()) {
    EXPECT_NE(childIdentity().find(
                  fmt::format("\nLumaren 3.3.7 Linux {}\n", testing_support::kernelRelease())),
              fn::String::npos);
  }

  // Without a product there is nothing to describe: a clear failure, not a blank object.
  for (char const* bad : {"2", "01x"})
    EXPECT_EQ(childIdentity(bad),
              "IllegalStateException: The product is unknown: ManagerAppType names no product\n");
  fn::Environment::unset("ManagerAppType");
  EXPECT_EQ(childIdentity(nullptr),
            "IllegalStateException: The product is unknown: ManagerAppType is not set (call "
            "AppInfo::initialize in the first process)\n");

  // A process that used another product's files cannot change its product any more.
  fn::PathManager::instance().getPath(fn::PathManager::USER_DATA);
  EXPECT_THROW(AppInfo::initialize(AppInfo::App::ORBISANT), fn::IllegalStateException);
  AppInfo::initialize(AppInfo::App::LUMAREN);
  EXPECT_EQ(AppInfo::appNamed("orbisant"), AppInfo::App::ORBISANT);
  EXPECT_EQ(AppInfo::appNamed("Orbis"), std::nullopt);
}

TEST(AppInfo, TheInstanceIdIsCreatedOnceAndSharedByEveryProcess) {
  TemporaryRoot root;
  fn::String path = root.path() + "/data/Lumaren/Instance.prefs";
  fn::String id = childIdentity().substr(0, 36);
  EXPECT_EQ(id.split("-").size(), 5u) << id;
  Preferences stored(path);
  stored.reload();
  EXPECT_EQ(stored.root(), fn::Value::map({{"instanceId", id}}));

  struct stat before = {}, after = {};
  ASSERT_EQ(::stat(path.c_str(), &before), 0);
  EXPECT_TRUE(childIdentity().startsWith(id + " 0\n"));
  ASSERT_EQ(::stat(path.c_str(), &after), 0);
  if (!testing_support::isWindows()) {
    EXPECT_EQ(before.st_ino, after.st_ino) << "the file was rewritten";
  }

  // An empty identifier is replaced by a new one, other members are kept.
  stored.root()["instanceId"] = "";
  stored.root()["other"] = 5;
  stored.save();
  fn::String replaced = childIdentity().substr(0, 36);
  EXPECT_TRUE(replaced.split("-").size() == 5 && replaced != id) << replaced;
  stored.reload();
  EXPECT_EQ(stored.root(), fn::Value::map({{"instanceId", replaced}, {"other", 5}}));

  // A damaged file is logged and left alone; the identifier is empty meanwhile.
  fn::ByteArray damaged(std::string_view("\"instanceId\": "));
  fn::File(path).writeAll(damaged);
  EXPECT_TRUE(childIdentity().startsWith(" 2\n"));  // one error per call
  EXPECT_EQ(fn::File(path).readAll(), damaged);
}

}  // namespace
}  // namespace core

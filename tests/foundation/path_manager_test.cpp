#include "foundation/path_manager.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "foundation/environment.h"
#include "foundation/exception.h"
#include "foundation/file.h"
#include "platform.h"

namespace fn {
namespace {

TEST(PathManager, LocationsLiveUnderTheApplicationNameAndTheTestRoot) {
  String root = testing_support::makeTemporaryDirectory("lumaren-paths");
  auto& paths = PathManager::instance();
  String previousName = paths.applicationName();

  Environment::unset(PathManager::TEST_ROOT_VARIABLE);
  if (!testing_support::isWindows()) {
    Environment::set("XDG_DATA_HOME", root + "/xdg-data");
    EXPECT_EQ(paths.getPath(PathManager::USER_DATA, "x"), root + "/xdg-data/Lumaren/x");
    Environment::set("XDG_DATA_HOME", "relative/ignored");
    Environment::set("HOME", root + "/home");
    EXPECT_EQ(paths.getPath(PathManager::USER_DATA), root + "/home/.local/share/Lumaren");
  } else {
    // A known folder of the user's, below which the application's name comes.
    EXPECT_TRUE(paths.getPath(PathManager::USER_DATA).endsWith("/Lumaren"));
  }

  Environment::set(PathManager::TEST_ROOT_VARIABLE, root);
  paths.setApplicationName("Orbisant");
  EXPECT_EQ(paths.getPath(PathManager::USER_FILES, "a"), root + "/documents/Orbisant/a");
  EXPECT_EQ(paths.getPath(PathManager::LOGS, "hub.log"), root + "/state/Orbisant/logs/hub.log");
  EXPECT_FALSE(File(root + "/data").exists());
  String created = paths.getPath(PathManager::APPLICATION_DATA, "logging_profiles/p.json", true);
  EXPECT_EQ(created, root + "/data/Orbisant/logging_profiles/p.json");
  EXPECT_FALSE(File(created).exists());
  EXPECT_TRUE(File(root + "/data/Orbisant/logging_profiles").isDirectory());
  if (!testing_support::isWindows()) {
    auto permissions = std::filesystem::status(std::string(root + "/data/Orbisant")).permissions();
    EXPECT_EQ(permissions & std::filesystem::perms::all & ~std::filesystem::perms::owner_all,
              std::filesystem::perms::none);
  }
  EXPECT_THROW(paths.getPath(4), RangeException);

  // The application's own directory, found from the running executable, is proven by the
  // module launch suite.
  paths.setApplicationName(previousName);
  Environment::unset(PathManager::TEST_ROOT_VARIABLE);
  std::filesystem::remove_all(std::string(root));
}

}  // namespace
}  // namespace fn

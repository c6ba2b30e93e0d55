#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

#include "child_role.h"
#include "peer.h"
#include "test_module.h"

namespace testing_support {
namespace {

std::map<std::string, ChildMain>& roles() {
  static std::map<std::string, ChildMain> registered;
  return registered;
}

}  // namespace

bool registerChildRole(char const* flag, ChildMain main) {
  roles()[flag] = main;
  return true;
}

ChildMain childRole(char const* flag) {
  auto found = roles().find(flag);
  return found == roles().end() ? nullptr : found->second;
}

}  // namespace testing_support

// The test executable doubles as the peer and module processes of the end-to-end tests.
int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--peer") == 0)
    return testing_support::runPeerRelay(argc, argv);
  if (argc > 1 && std::strcmp(argv[1], "--module") == 0)
    return testing_support::runTestModule(argc, argv);
  if (argc > 1) {
    if (auto role = testing_support::childRole(argv[1]))
      return role(argc, argv);
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

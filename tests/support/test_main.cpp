#include <gtest/gtest.h>

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
  using namespace testing_support;
  registerChildRole("--peer", &runPeerRelay);
  registerChildRole("--module", &runTestModule);
  if (auto role = argc > 1 ? childRole(argv[1]) : nullptr)
    return role(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

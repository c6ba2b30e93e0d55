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

}  // namespace testing_support

// The test executable doubles as the peer and module processes of the end-to-end tests.
int main(int argc, char** argv) {
  using namespace testing_support;
  registerChildRole("--peer", &runPeerRelay);
  registerChildRole("--module", &runTestModule);
  if (auto role = argc > 1 ? roles().find(argv[1]) : roles().end(); role != roles().end())
    return role->second(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

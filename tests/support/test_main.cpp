#include <gtest/gtest.h>

#include <cstring>

#include "peer.h"
#include "test_module.h"

// The test executable doubles as the peer and module processes of the end-to-end tests.
int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--peer") == 0)
    return testing_support::runPeerRelay(argc, argv);
  if (argc > 1 && std::strcmp(argv[1], "--module") == 0)
    return testing_support::runTestModule(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

#include <gtest/gtest.h>

#include <cstring>

#include "peer.h"

// The test executable doubles as the peer process of the end-to-end tests.
int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--peer") == 0)
    return testing_support::runPeerRelay(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

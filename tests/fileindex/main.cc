// The file index tests need the main queue served (scope changes run there).
#include <gtest/gtest.h>

#include "index_fixture.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new quorvi::testing::MainQueueThread);
  return RUN_ALL_TESTS();
}

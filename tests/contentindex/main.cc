// The content index tests need the main queue served (the file index's
// scope changes run there).
#include <gtest/gtest.h>

#include <thread>

#include "common/dispatch.h"

namespace {

class MainQueueThread : public ::testing::Environment {
 public:
  void SetUp() override {
    thread_ = std::thread([] { quorvi::DispatchQueue::runMain(); });
  }
  void TearDown() override {
    quorvi::DispatchQueue::stopMain();
    thread_.join();
  }

 private:
  std::thread thread_;
};

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new MainQueueThread);
  return RUN_ALL_TESTS();
}

// #33 as a client sees it: the real quorvifind on a private bus.
#include <gtest/gtest.h>

#include "common/json.h"
#include "listening_child.h"
#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

TEST(RunningProcessesOverTheBus, ListsAChildsPortsOncePerPort) {
  TestBus bus;
  ASSERT_TRUE(bus.ok());
  TemporaryDirectory home;
  ServiceProcess service(bus, home.path());
  ASSERT_TRUE(service.ok()) << service.output();
  auto client = bus.connect();
  ASSERT_TRUE(client);
  ListeningChild child("quorvi bus");
  ASSERT_TRUE(child.ok());
  auto result = callMember(*client, "GetRunningProcessesWithCompletion", {});
  ASSERT_TRUE(result.ok) << result.errorName << " " << result.errorMessage;
  ASSERT_EQ(result.values.size(), 1u);
  ASSERT_TRUE(result.values[0].value);
  Json document = Json::parse(*result.values[0].value);
  std::vector<int64_t> ports;
  for (const auto& e : document["portProcesses"]) {
    if (e["pid"] == child.pid()) ports.push_back(e["port"].get<int64_t>());
  }
  EXPECT_EQ(ports, (std::vector<int64_t>{child.dualStackPort(), child.secondPort()}));
  bool serviceListed = false;
  for (const auto& e : document["allProcesses"]) {
    if (e["pid"] == service.pid()) serviceListed = e["name"] == "quorvifind";
  }
  EXPECT_TRUE(serviceListed);
}

}  // namespace
}  // namespace quorvi::testing

// #27 over a private bus against the real quorvifind.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "common/json.h"
#include "ocr/test_images.h"
#include "support/test_bus.h"

namespace quorvi {
namespace {

using namespace std::chrono_literals;
using namespace ocr_test;

TEST(OcrOverTheBus, TextFailuresAndTheIdentifierEchoed) {
  testing::TestBus bus;
  ASSERT_TRUE(bus.ok());
  testing::TemporaryDirectory home;
  testing::ServiceProcess service(bus, home.path(), {{"OMP_THREAD_LIMIT", ""}});
  ASSERT_TRUE(service.ok()) << service.output();
  auto client = bus.connect();
  ASSERT_TRUE(client);

  Drawing drawing;
  drawing.width = 500, drawing.height = 60;
  drawing.lines = {{"Meeting moved to 3 pm", 20, 40}};
  std::string image = home.write("shot.png", draw(drawing));
  auto reply = testing::callMember(*client, "OcrWithImageIdentifierIsAccurateLevelCompletionHandler",
                                   {"@" + image, "9001", "false"}, 60s);
  ASSERT_TRUE(reply.ok) << reply.errorMessage;
  ASSERT_EQ(reply.values.size(), 3u);
  EXPECT_FALSE(reply.values[0].value) << "no failure text";
  ASSERT_TRUE(reply.values[1].value);
  Json lines = Json::parse(*reply.values[1].value);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0]["text"], "Meeting moved to 3 pm");
  EXPECT_EQ(reply.values[2].integer, 9001);

  std::string garbage = home.write("garbage.png", "this is not a PNG at all, whatever its name says");
  reply = testing::callMember(*client, "OcrWithImageIdentifierIsAccurateLevelCompletionHandler",
                              {"@" + garbage, "-3", "true"}, 60s);
  ASSERT_TRUE(reply.ok) << reply.errorMessage;
  EXPECT_EQ(reply.values[0].value, "The image could not be read.");
  EXPECT_FALSE(reply.values[1].value);
  EXPECT_EQ(reply.values[2].integer, -3);

  // The service runs with one OpenMP thread per engine, even when started
  // with another setting.
  std::ifstream environ("/proc/" + std::to_string(service.pid()) + "/environ", std::ios::binary);
  std::stringstream variables;
  variables << environ.rdbuf();
  std::string all = std::string(1, '\0') + variables.str();
  EXPECT_NE(all.find(std::string("\0OMP_THREAD_LIMIT=1\0", 20)), std::string::npos);
  EXPECT_TRUE(service.running());
}

}  // namespace
}  // namespace quorvi

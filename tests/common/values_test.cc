#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/codable_dictionary_value.h"
#include "common/event_log.h"
#include "common/json.h"

namespace quorvi {
namespace {

TEST(CodableDictionaryValueTest, EncodesOnlyThePresentFieldsInOrder) {
  CodableDictionaryValue three;
  three.intValue = 3;
  EXPECT_EQ(three.toJson().dump(), R"({"intValue":3})");

  CodableDictionaryValue all{true, -1, 0.5, "s", std::string("\x00\xff", 2)};
  EXPECT_EQ(all.toJson().dump(),
            R"({"boolValue":true,"intValue":-1,"doubleValue":0.5,"stringValue":"s","dataValue":"AP8="})");
  EXPECT_EQ(CodableDictionaryValue::fromJson(all.toJson()), all);
  EXPECT_EQ(CodableDictionaryValue().toJson().dump(), "{}");
}

TEST(CodableDictionaryValueTest, RejectsWrongTypes) {
  EXPECT_FALSE(CodableDictionaryValue::fromJson(Json::parse(R"({"intValue":"3"})")));
  EXPECT_FALSE(CodableDictionaryValue::fromJson(Json::parse(R"({"dataValue":"%%%"})")));
  EXPECT_FALSE(CodableDictionaryValue::fromJson(Json::parse("[1]")));
}

TEST(JsonTest, Base64RoundTripsEveryLength) {
  std::string bytes;
  for (int n = 0; n < 300; ++n) {
    EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes);
    bytes += char(n * 37);
  }
  EXPECT_EQ(base64Encode("Man"), "TWFu");
  EXPECT_EQ(base64Encode("M"), "TQ==");
  EXPECT_FALSE(base64Decode("TQ="));
}

TEST(JsonTest, InvalidUtf8NeverFailsAnEncoding) {
  Json doc = {{"name", std::string("bad\xff\xfe name")}};
  auto bytes = encodeJson(doc);
  ASSERT_TRUE(bytes);
  EXPECT_NE(bytes->find("bad"), std::string::npos);
}

TEST(JsonTest, DirectStringsMatchTheEncoderByteForByte) {
  for (std::string text : {std::string(""), std::string("plain"), std::string("报告 2024.pdf"),
                           std::string("quote\" back\\ tab\t nl\n bell\x07"), std::string("bad\xff\xfe"),
                           std::string("\xC0\xAF overlong"), std::string("\xED\xA0\x80 surrogate"),
                           std::string("cut \xE6\x8A"), std::string("nul\0in", 6), std::string("emoji 👩‍👩‍👧")}) {
    Bytes direct;
    appendJsonString(direct, text);
    EXPECT_EQ(direct, encodeJson(Json(text))) << text;
  }
  Bytes key;
  appendJsonKey(key, "matchs");
  EXPECT_EQ(key, "\"matchs\":");
}

TEST(EventLogTest, ExportsLinesJoinedAndAnEmptyLogAsAnEmptyFile) {
  auto dir = std::filesystem::temp_directory_path() / "quorvi-eventlog-test";
  std::filesystem::create_directories(dir);
  auto read = [](const std::filesystem::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  };
  EventLog log;
  ASSERT_TRUE(log.exportTo((dir / "empty.txt").string()));
  EXPECT_TRUE(std::filesystem::exists(dir / "empty.txt"));
  EXPECT_EQ(read(dir / "empty.txt"), "");

  log.append("created /a");
  log.append("removed /b");
  ASSERT_TRUE(log.exportTo("file://" + (dir / "with%20space.txt").string()));
  EXPECT_EQ(read(dir / "with space.txt"), "created /a\nremoved /b");
  EXPECT_FALSE(log.exportTo("/nonexistent-folder/x/log.txt"));
  EXPECT_FALSE(log.exportTo("relative/path"));
  std::filesystem::remove_all(dir);
}

TEST(EventLogTest, KeepsOnlyTheNewestLinesPastItsCapacity) {
  EventLog log;
  for (std::size_t i = 0; i < EventLog::kCapacity + 5; ++i) log.append(std::to_string(i));
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), EventLog::kCapacity);
  EXPECT_EQ(lines.front(), "5");
}

}  // namespace
}  // namespace quorvi

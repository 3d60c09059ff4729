#include "pinyin/polyphone_table.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <set>

#include "pinyin_test_support.h"
#include "platform/paths.h"
#include "platform/process_runner.h"

namespace quorvi {
namespace {

TEST(PolyphoneTableTest, ReadsRowsAndLowercasesReadings) {
  auto reading = parsePolyphoneTable(R"({"行":["xing","Hang"],"重":["zhong","chong"]})");
  EXPECT_TRUE(reading.error.empty()) << reading.error;
  ASSERT_EQ(reading.table.size(), 2u);
  EXPECT_EQ(reading.table[U'行'], (std::vector<std::string>{"xing", "hang"}));
}

TEST(PolyphoneTableTest, RejectsAnythingElseAsAWhole) {
  const char* broken[] = {
      "",                                    // empty file
      "{\"行\":[\"xing\"",                   // cut short
      "[[\"行\",\"xing\"]]",                 // not an object
      R"({"行":"xing"})",                    // value not a list
      R"({"行":[]})",                        // no readings
      R"({"行":["xing"],"银行":["x"]})",     // key of two characters
      R"({"a":["a"]})",                      // key not Chinese
      R"({"行":["xíng"]})",                  // tone mark
      R"({"行":["xing",3]})",                // not a string
      "{\"\xe8\xa1\":[\"xing\"]}",            // invalid UTF-8 key
  };
  for (const char* text : broken) {
    auto reading = parsePolyphoneTable(text);
    EXPECT_TRUE(reading.table.empty()) << text;
    EXPECT_FALSE(reading.error.empty()) << text;
  }
  EXPECT_FALSE(readPolyphoneTable("/nonexistent/PinyinDuoyinzi.json").error.empty());
}

TEST(PolyphoneTableTest, ShippedTableHasOnlyPolyphonicRows) {
  auto reading = readPolyphoneTable(defaultPolyphoneTablePath());
  ASSERT_TRUE(reading.error.empty()) << reading.error;
  EXPECT_GT(reading.table.size(), 3000u);
  for (const auto& [character, readings] : reading.table) {
    EXPECT_GE(std::set<std::string>(readings.begin(), readings.end()).size(), 2u);
    EXPECT_EQ(std::set<std::string>(readings.begin(), readings.end()).size(), readings.size());
  }
  EXPECT_EQ(reading.table[U'行'].front(), "xing");  // most frequent first
  EXPECT_EQ(reading.table.count(U'绿'), 0u);  // lǜ and lù: one toneless reading
}

// The shipped table is what the generator makes from the installed Unihan
// data: a stale or hand-edited table fails here.
TEST(PolyphoneTableTest, GeneratorReproducesShippedTable) {
  const std::string unihan = "/usr/share/unicode/Unihan_Readings.txt.bz2";
  const std::string python = findExecutable("python3");
  if (python.empty() || !std::filesystem::exists(unihan)) GTEST_SKIP() << "needs python3 and unicode-data";
  testing::TemporaryFolder folder;
  const char* sourceDir = std::getenv("QUORVI_SOURCE_DIR");
  const std::string source = sourceDir ? sourceDir : resourceDirectory() + "/..";
  const std::string output = folder.path() + "/table.json";
  auto run = runProcess(python, {source + "/tools/pinyin/make_polyphone_table.py", "--unihan", unihan,
                                 "--output", output});
  ASSERT_EQ(run.exitStatus, 0) << run.standardError;
  std::ifstream generated(output), shipped(defaultPolyphoneTablePath());
  std::string generatedText((std::istreambuf_iterator<char>(generated)), {});
  std::string shippedText((std::istreambuf_iterator<char>(shipped)), {});
  EXPECT_EQ(generatedText, shippedText);
}

}  // namespace
}  // namespace quorvi

#include "pinyin/word_table.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "pinyin/polyphone_table.h"
#include "pinyin/utf8_text.h"
#include "pinyin_test_support.h"
#include "platform/paths.h"
#include "platform/process_runner.h"

namespace quorvi {
namespace {

std::string readAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(file)), {});
}

std::string sourceDirectory() {
  const char* dir = std::getenv("QUORVI_SOURCE_DIR");
  return dir ? dir : resourceDirectory() + "/..";
}

TEST(WordTableTest, ReadsWordsSkipsCommentsAndLowercases) {
  auto reading = parseWordTable("# header\n\n银行 yin hang\n# more\n一技之长 yi ji zhi Chang\n行长 hang zhang");
  ASSERT_TRUE(reading.error.empty()) << reading.error;
  ASSERT_EQ(reading.words.size(), 3u);
  EXPECT_EQ(reading.words[0].word, U"银行");
  EXPECT_EQ(reading.words[0].syllables, (std::vector<std::string>{"yin", "hang"}));
  EXPECT_EQ(reading.words[1].syllables, (std::vector<std::string>{"yi", "ji", "zhi", "chang"}));
  EXPECT_EQ(reading.words[2].word, U"行长");  // last line without a newline
  EXPECT_TRUE(parseWordTable("").error.empty());
  EXPECT_TRUE(parseWordTable("# only comments\n").words.empty());
}

TEST(WordTableTest, RejectsAnythingElseAsAWhole) {
  const char* broken[] = {
      "银行 yin hang\n银行",                   // no reading
      "银行 yin\n",                            // too few syllables
      "银行 yin hang xing\n",                  // too many
      "银行 yin  hang\n",                      // double space
      "银行 yin hang \n",                      // trailing space
      "银行  yin hang\n",                      // empty first syllable
      "银行 yín hang\n",                       // tone mark
      "银行 yin hang\r\n",                     // carriage return
      "银行 yin zhuangg\n",                    // seven letters
      "行 xing\n",                             // one character
      "银行yin hang\n",                        // no space after the word
      "ab a b\n",                              // not Chinese
      "銀〇 yin ling\n",                       // U+3007 is outside the range
      "银行 yin hang\n银行 yin xing\n",        // listed twice
      "\xe9\x93 yin\n",                        // invalid UTF-8
      "一二三四五六七八九 yi er san si wu liu qi ba jiu\n",  // nine characters
  };
  for (const char* text : broken) {
    auto reading = parseWordTable(text);
    EXPECT_TRUE(reading.words.empty()) << text;
    EXPECT_FALSE(reading.error.empty()) << text;
  }
  EXPECT_EQ(parseWordTable("一二三四五六七八 yi er san si wu liu qi ba\n").words.size(), 1u);  // eight is the most
  EXPECT_FALSE(readWordTable("/nonexistent/PinyinWords.txt").error.empty());
  testing::TemporaryFolder folder;
  EXPECT_FALSE(readWordTable(folder.path()).error.empty());  // a folder
}

// Mutated tables either read or are rejected with a reason; never anything
// in between.
TEST(WordTableTest, MutatedTablesNeverHalfRead) {
  const std::string valid = readAll(defaultWordTablePath());
  ASSERT_FALSE(valid.empty());
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    std::string text = valid.substr(random() % valid.size(), 2000);
    for (int edits = 1 + random() % 4; edits > 0; --edits) {
      text[random() % text.size()] = static_cast<char>(random() % 256);
    }
    auto reading = parseWordTable(text);
    if (!reading.error.empty()) {
      EXPECT_TRUE(reading.words.empty());
    }
    for (const auto& entry : reading.words) {
      EXPECT_EQ(entry.word.size(), entry.syllables.size());
      EXPECT_GE(entry.word.size(), 2u);
      for (char32_t c : entry.word) EXPECT_TRUE(isChineseCodePoint(c));
      for (const auto& syllable : entry.syllables) {
        EXPECT_TRUE(!syllable.empty() && syllable.find_first_not_of("abcdefghijklmnopqrstuvwxyz") == std::string::npos);
      }
    }
  }
}

// Every shipped word reads one of its polyphonic characters otherwise than
// that character's first reading: the others would be read right anyway.
TEST(WordTableTest, ShippedTableHoldsOnlyWordsThatReadOtherwise) {
  auto words = readWordTable(defaultWordTablePath());
  ASSERT_TRUE(words.error.empty()) << words.error;
  auto polyphones = readPolyphoneTable(defaultPolyphoneTablePath());
  ASSERT_TRUE(polyphones.error.empty()) << polyphones.error;
  EXPECT_GT(words.words.size(), 500u);
  for (const auto& entry : words.words) {
    bool readsOtherwise = false;
    for (std::size_t k = 0; k < entry.word.size(); ++k) {
      auto row = polyphones.table.find(entry.word[k]);
      readsOtherwise |= row != polyphones.table.end() && row->second.front() != entry.syllables[k];
    }
    EXPECT_TRUE(readsOtherwise) << entry.syllables.front();
  }
  auto readingOf = [&](std::u32string_view word) {
    for (const auto& entry : words.words) {
      if (entry.word == word) return entry.syllables;
    }
    return std::vector<std::string>{};
  };
  EXPECT_EQ(readingOf(U"银行"), (std::vector<std::string>{"yin", "hang"}));
  EXPECT_EQ(readingOf(U"还款"), (std::vector<std::string>{"huan", "kuan"}));
  EXPECT_EQ(readingOf(U"长沙"), (std::vector<std::string>{"chang", "sha"}));
  EXPECT_EQ(readingOf(U"地图"), (std::vector<std::string>{"di", "tu"}));
  EXPECT_EQ(readingOf(U"旅行"), (std::vector<std::string>{}));  // 旅 and 行 read lu xing alone
}

// The shipped table is what the generator makes from the installed
// dictionary and the shipped polyphone table: a stale or hand-edited table
// fails here.
TEST(WordTableTest, GeneratorReproducesShippedTable) {
  const std::string dictionary = "/usr/share/rime-data/pinyin_simp.dict.yaml";
  const std::string python = findExecutable("python3");
  if (python.empty() || !std::filesystem::exists(dictionary)) {
    GTEST_SKIP() << "needs python3 and rime-data-pinyin-simp";
  }
  testing::TemporaryFolder folder;
  const std::string output = folder.path() + "/words.txt";
  auto run = runProcess(python, {sourceDirectory() + "/tools/pinyin/make_word_table.py", "--dict", dictionary,
                                 "--polyphones", defaultPolyphoneTablePath(), "--output", output});
  ASSERT_EQ(run.exitStatus, 0) << run.standardError;
  EXPECT_EQ(readAll(output), readAll(defaultWordTablePath()));
}

}  // namespace
}  // namespace quorvi

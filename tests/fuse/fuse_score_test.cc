// Scores and ranges of single-text searches, worked out by hand from the
// matcher's rules (literal pre-pass, bitap passes, ranges from the mask).
#include <gtest/gtest.h>

#include <string>

#include "fuse/fuse.h"
#include "fuse/fuse_utilities.h"

namespace quorvi {
namespace {

using Ranges = std::vector<CharacterRange>;

Fuse makeFuse(long location = 0, long distance = 100, double threshold = 0.6, bool caseSensitive = false) {
  return Fuse(location, distance, threshold, 32, caseSensitive, false);
}

TEST(FusePatternTest, AlphabetMaskAndLength) {
  Fuse fuse = makeFuse();
  auto pattern = fuse.createPattern("AbcA");
  ASSERT_TRUE(pattern);
  EXPECT_EQ(pattern->text, "abca");
  EXPECT_EQ(pattern->len, 4);
  EXPECT_EQ(pattern->mask, 8);
  EXPECT_EQ(pattern->alphabet.at("a"), 9u);  // positions 0 and 3
  EXPECT_EQ(pattern->alphabet.at("b"), 4u);
  EXPECT_EQ(pattern->alphabet.at("c"), 2u);
  EXPECT_FALSE(fuse.createPattern(""));

  Fuse caseSensitive = makeFuse(0, 100, 0.6, true);
  EXPECT_EQ(caseSensitive.createPattern("AbcA")->text, "AbcA");
}

TEST(FusePatternTest, LongPatternsLoseTheirFullMatchBit) {
  Fuse fuse = makeFuse();
  EXPECT_EQ(fuse.createPattern(std::string(64, 'a'))->mask, INT64_MIN);
  auto longPattern = fuse.createPattern("b" + std::string(64, 'a'));
  EXPECT_EQ(longPattern->mask, 0);
  EXPECT_EQ(longPattern->alphabet.at("b"), 0u);  // shift 64 contributes nothing
  EXPECT_EQ(longPattern->alphabet.at("a"), ~uint64_t{0});
}

TEST(FuseScoreTest, ScoreRule) {
  Fuse fuse = makeFuse(/*location=*/5, /*distance=*/10);
  EXPECT_DOUBLE_EQ(fuse.score(1, 5, 4), 0.25);
  EXPECT_DOUBLE_EQ(fuse.score(1, 8, 4), 0.25 + 0.3);
  EXPECT_DOUBLE_EQ(fuse.score(0, 2, 4), 0.3);
  Fuse exactOnly = makeFuse(/*location=*/5, /*distance=*/0);
  EXPECT_DOUBLE_EQ(exactOnly.score(2, 5, 4), 0.5);
  EXPECT_DOUBLE_EQ(exactOnly.score(0, 6, 4), 1.0);
}

TEST(FuseScoreTest, EqualityShortcutAfterCaseFolding) {
  auto match = makeFuse(/*location=*/40).search("Hello World", "hello world");
  ASSERT_TRUE(match);
  EXPECT_EQ(match->score, 0.0);
  EXPECT_EQ(match->ranges, (Ranges{{0, 10}}));

  auto sensitive = makeFuse(0, 100, 0.6, true).search("Hello", "hello");
  ASSERT_TRUE(sensitive);
  EXPECT_GT(sensitive->score, 0.0);
}

TEST(FuseScoreTest, ExactOccurrenceAwayFromLocation) {
  // Literal at 2 gives threshold 0.02; pass 0 finds it again and keeps going down the row.
  auto match = makeFuse().search("abc", "xxabc");
  ASSERT_TRUE(match);
  EXPECT_DOUBLE_EQ(match->score, 0.02);
  EXPECT_EQ(match->ranges, (Ranges{{2, 4}}));
}

TEST(FuseScoreTest, OneErrorFoundInTheSecondPass) {
  // "abc" in "abxc": pass 0 has no full match; pass 1 reports 1 error at 0.
  auto match = makeFuse().search("abc", "abxc");
  ASSERT_TRUE(match);
  EXPECT_DOUBLE_EQ(match->score, 1.0 / 3.0);
  EXPECT_EQ(match->ranges, (Ranges{{0, 1}, {3, 3}}));  // every pattern character in reach
}

TEST(FuseScoreTest, DistanceZeroAcceptsOnlyTheLocation) {
  auto atLocation = makeFuse(0, 0).search("abc", "abcd");
  ASSERT_TRUE(atLocation);
  EXPECT_EQ(atLocation->score, 0.0);
  EXPECT_EQ(atLocation->ranges, (Ranges{{0, 2}}));

  // Found literally at 1, but every candidate away from location scores 1.0.
  auto away = makeFuse(0, 0).search("abc", "xabc");
  ASSERT_TRUE(away);
  EXPECT_EQ(away->score, 1.0);
  EXPECT_EQ(away->ranges, (Ranges{{1, 3}}));
  EXPECT_TRUE(makeFuse(0, 0).search("abc", std::vector<std::string>{"xabc"}).empty());
}

TEST(FuseScoreTest, EveryOccurrenceFromLocationIsMarked) {
  auto all = makeFuse().search("ab", "ab-ab-ab");
  ASSERT_TRUE(all);
  EXPECT_EQ(all->score, 0.0);
  EXPECT_EQ(all->ranges, (Ranges{{0, 1}, {3, 4}, {6, 7}}));

  // From location 3 the literal walk starts there and the passes reach no further left.
  auto fromThree = makeFuse(/*location=*/3).search("ab", "ab-ab-ab");
  ASSERT_TRUE(fromThree);
  EXPECT_EQ(fromThree->score, 0.0);
  EXPECT_EQ(fromThree->ranges, (Ranges{{3, 4}, {6, 7}}));
}

TEST(FuseScoreTest, NoMatchAndOddInputs) {
  Fuse fuse = makeFuse();
  EXPECT_FALSE(fuse.search("", "anything"));
  EXPECT_FALSE(fuse.search(std::optional<FusePattern>{}, "anything"));
  auto none = fuse.search("qqq", "abc");
  ASSERT_TRUE(none);
  EXPECT_EQ(none->score, 1.0);
  EXPECT_TRUE(none->ranges.empty());
  auto empty = fuse.search("abc", "");
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->score, 1.0);
  EXPECT_TRUE(empty->ranges.empty());
  // Locations and distances far outside the text neither crash nor match.
  for (long location : {-1000000L, 1000000L, LONG_MAX, LONG_MIN}) {
    Fuse odd(location, -5, 0.6, 32, false, false);
    auto match = odd.search("abc", "xxabcxx");
    ASSERT_TRUE(match) << location;
  }
  EXPECT_EQ(makeFuse(/*location=*/100).search("abc", "abc abc")->ranges, Ranges{});
}

TEST(FuseLongPatternTest, OnlyTheLiteralPassCanFindIt) {
  std::string pattern;
  for (int i = 0; i < 70; ++i) pattern += static_cast<char>('a' + i % 20);
  auto found = makeFuse().search(pattern, "zz" + pattern + "zz");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->score, 1.0);
  EXPECT_EQ(found->ranges, (Ranges{{2, 71}}));
  EXPECT_TRUE(makeFuse().search(pattern, std::vector<std::string>{"zz" + pattern}).empty());
  EXPECT_EQ(makeFuse().search(pattern, pattern)->score, 0.0);
}

TEST(FuseLongPatternTest, PassesStopBeforeTheSeedOverflows) {
  // Threshold 1.0 keeps every pass alive; the passes end at 62 with no match.
  Fuse lenient(0, 100, 1.0, 32, false, false);
  const std::string pattern(100, 'q');
  auto match = lenient.search(pattern, std::string(50, 'q') + "r");
  ASSERT_TRUE(match);
  EXPECT_EQ(match->score, 1.0);
  EXPECT_EQ(match->ranges, (Ranges{{0, 49}}));
}

TEST(FuseLongPatternTest, HugeRepetitiveInputsFinish) {
  // Worst cases for a naive literal search and for the pass count.
  const std::string text(200000, 'a');
  auto match = makeFuse().search(std::string(100000, 'a') + "b", text);
  ASSERT_TRUE(match);
  EXPECT_EQ(match->score, 1.0);
  auto wide = makeFuse().search(std::string(3000, 'a') + "\xC3\xA9", std::string(20000, 'a') + "\xC3\xA9");
  ASSERT_TRUE(wide);
  // Found literally at 17000, too far to score; pass 0 marks the "a"s within
  // its reach, 0 ... 60 + 3001 - 1.
  EXPECT_EQ(wide->score, 1.0);
  EXPECT_EQ(wide->ranges, (Ranges{{0, 3060}, {17000, 20000}}));
}

TEST(FuseUtilitiesTest, LiteralSearchAndRanges) {
  EXPECT_EQ(FuseUtilities::findLiteral("ab", "ab-ab", 0), 0);
  EXPECT_EQ(FuseUtilities::findLiteral("ab", "ab-ab", 1), 3);
  EXPECT_EQ(FuseUtilities::findLiteral("ab", "ab-ab", 4), -1);
  EXPECT_EQ(FuseUtilities::findLiteral("ab", "ab-ab", 6), -1);
  EXPECT_EQ(FuseUtilities::findLiteral("Ab", "ab", 0), -1);  // no folding here
  EXPECT_EQ(FuseUtilities::findRanges({1, 1, 0, 0, 1, 0, 1}), (Ranges{{0, 1}, {4, 4}, {6, 6}}));
  EXPECT_EQ(FuseUtilities::findRanges({0, 0}), Ranges{});
  EXPECT_EQ(FuseUtilities::findRanges({}), Ranges{});
}

TEST(FuseListTest, KeepsMatchesInListOrderWithTheirIndex) {
  std::vector<std::string> texts{"Safari", "Terminal", "xxabc", "abc", "zzzz"};
  auto results = makeFuse().search("abc", texts);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].index, 2);
  EXPECT_DOUBLE_EQ(results[0].score, 0.02);
  EXPECT_EQ(results[1].index, 3);
  EXPECT_EQ(results[1].score, 0.0);
  EXPECT_TRUE(makeFuse().search("", texts).empty());
}

}  // namespace
}  // namespace quorvi

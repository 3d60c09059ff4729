// The weighted and tokenised search over Fuseable records.
#include <gtest/gtest.h>

#include "fuse/fuse.h"

namespace quorvi {
namespace {

using Ranges = std::vector<CharacterRange>;

struct Record : Fuseable {
  std::vector<FuseProperty> values;
  explicit Record(std::vector<FuseProperty> values) : values(std::move(values)) {}
  std::vector<FuseProperty> properties() const override { return values; }
};

FuseableRef record(std::vector<FuseProperty> values) { return std::make_shared<Record>(std::move(values)); }

Fuse makeFuse(bool tokenize = false) { return Fuse(0, 100, 0.6, 32, false, tokenize); }

TEST(FuseWeightedTest, PerfectMatchesAndWeights) {
  std::vector<FuseableRef> items{
      record({FuseProperty("Hello", 0.5)}),      // perfect, weight 0.5 -> 0
      record({FuseProperty("hello")}),           // perfect, weight 1.0 -> 0.001
      record({FuseProperty("xyz"), FuseProperty("qqq")}),  // nothing scores -> left out
      record({FuseProperty("xxhello", 0.25)}),   // 0.02 at weight 0.25 -> 0.02 * 0.75
  };
  auto results = makeFuse().search("hello", items);
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(results[0].index, 0);
  EXPECT_EQ(results[0].score, 0.0);
  ASSERT_EQ(results[0].results.size(), 1u);
  EXPECT_EQ(results[0].results[0].key, "Hello");
  EXPECT_EQ(results[0].results[0].ranges, (Ranges{{0, 4}}));
  EXPECT_EQ(results[1].index, 1);
  EXPECT_DOUBLE_EQ(results[1].score, 0.001);
  EXPECT_EQ(results[2].index, 3);
  EXPECT_DOUBLE_EQ(results[2].score, 0.02 * 0.75);
}

TEST(FuseWeightedTest, AveragesOnlyTheScoredProperties) {
  auto results = makeFuse().search("hello", {record({FuseProperty("hello"), FuseProperty("qqq"),
                                                     FuseProperty("xxhello")}),
                                             nullptr});
  ASSERT_EQ(results.size(), 1u);
  ASSERT_EQ(results[0].results.size(), 2u);
  EXPECT_EQ(results[0].results[1].key, "xxhello");
  EXPECT_DOUBLE_EQ(results[0].results[1].score, 0.02);
  EXPECT_DOUBLE_EQ(results[0].score, (0.001 + 0.02) / 2);
  EXPECT_TRUE(makeFuse().search("", {record({FuseProperty("hello")})}).empty());
}

TEST(FuseWeightedTest, TokenisedScoreAveragesWholePatternAndWords) {
  // whole "foo bar" = 0 (equal); "foo" = 0 at 0; "bar" = 0.04 at 4.
  auto results = makeFuse(true).search("foo bar", {record({FuseProperty("foo bar")})});
  ASSERT_EQ(results.size(), 1u);
  const FusePropertyResult& property = results[0].results.at(0);
  EXPECT_DOUBLE_EQ(property.score, 0.04 / 3);
  EXPECT_EQ(property.ranges, (Ranges{{0, 6}, {0, 2}, {4, 6}}));

  // Without tokenising the same search is the plain equality.
  EXPECT_DOUBLE_EQ(makeFuse(false).search("foo bar", {record({FuseProperty("foo bar")})})[0].score, 0.001);
}

TEST(FuseWeightedTest, TokenisingSkipsEmptyWords) {
  Fuse fuse = makeFuse(true);
  const std::string text = "bar foo";
  const double whole = fuse.search("foo  bar", text)->score;
  const double foo = fuse.search("foo", text)->score;
  const double bar = fuse.search("bar", text)->score;
  auto results = fuse.search("foo  bar", {record({FuseProperty(text)})});
  ASSERT_EQ(results.size(), 1u);
  EXPECT_DOUBLE_EQ(results[0].score, (whole + foo + bar) / 3);
}

TEST(FuseWeightedTest, TokenisingCanRescueAnItemThePlainSearchDrops) {
  // The whole pattern misses; its words still hit, so the average is below 1.0.
  auto plain = makeFuse(false).search("zzzzzz foo", {record({FuseProperty("foo")})});
  auto tokenised = makeFuse(true).search("zzzzzz foo", {record({FuseProperty("foo")})});
  EXPECT_TRUE(plain.empty());
  ASSERT_EQ(tokenised.size(), 1u);
  EXPECT_LT(tokenised[0].score, 1.0);
}

}  // namespace
}  // namespace quorvi

// The query parser on the strings the metadata queries build, and on
// strings that are not queries.
#include <gtest/gtest.h>

#include <ctime>

#include "spotlight/metadata_query.h"
#include "spotlight/spotlight_query.h"

namespace quorvi {
namespace {

TEST(MetadataQueryTest, NameQueryOfTwoWordsIsTwoConjunctionsOfTwoClauses) {
  std::string text = SpotlightQuery::nameQueryString("ann rep");
  EXPECT_EQ(text,
            "kMDItemFSName == 'ann*'cdw && kMDItemFSName == 'rep*'cdw || "
            "kMDItemDisplayName == 'ann*'cdw && kMDItemDisplayName == 'rep*'cdw");
  MetadataQuery query = MetadataQuery::parse(text);
  ASSERT_TRUE(query.ok()) << query.error()->description();
  auto form = query.disjunctiveForm();
  ASSERT_TRUE(form);
  ASSERT_EQ(form->size(), 2u);
  for (const auto& conjunction : *form) ASSERT_EQ(conjunction.size(), 2u);
  const Comparison& first = (*form)[0][0];
  EXPECT_EQ(first.attribute, "kMDItemFSName");
  EXPECT_EQ(first.op, ComparisonOperator::equal);
  EXPECT_EQ(first.value.text, "ann*");
  EXPECT_TRUE(first.value.isWildcardAt(3));
  EXPECT_TRUE(first.value.caseInsensitive && first.value.diacriticInsensitive && first.value.wordBased);
  EXPECT_EQ((*form)[1][1].attribute, "kMDItemDisplayName");
  EXPECT_EQ((*form)[1][1].value.text, "rep*");
}

TEST(MetadataQueryTest, KeywordSpacingAndReservedCharacters) {
  EXPECT_EQ(SpotlightQuery::nameQueryString("ann  rep"), SpotlightQuery::nameQueryString("ann rep"));
  EXPECT_EQ(SpotlightQuery::nameQueryString(" ann rep "), SpotlightQuery::nameQueryString("ann rep"));
  EXPECT_EQ(SpotlightQuery::contentsQueryString("x"), "kMDItemTextContent == 'x*'cdw || kMDItemFinderComment == 'x*'cdw");
  // A quote, a backslash or a star in a word is part of the word.
  for (std::string word : {"it's", "a\\b", "1*2", "say\"hi\"", "'"}) {
    MetadataQuery query = MetadataQuery::parse(SpotlightQuery::nameQueryString(word));
    ASSERT_TRUE(query.ok()) << word;
    auto form = query.disjunctiveForm();
    const QueryValue& value = (*form)[0][0].value;
    EXPECT_EQ(value.text, word + "*") << word;
    for (std::size_t i = 0; i + 1 < value.text.size(); ++i) EXPECT_FALSE(value.isWildcardAt(i)) << word;
    EXPECT_TRUE(value.isWildcardAt(value.text.size() - 1));
  }
}

TEST(MetadataQueryTest, AndBindsTighterThanOrAndParenthesesRegroup) {
  auto form = MetadataQuery::parse("a == 1 || b == 2 && c == 3").disjunctiveForm();
  ASSERT_TRUE(form);
  ASSERT_EQ(form->size(), 2u);
  EXPECT_EQ((*form)[0].size(), 1u);
  EXPECT_EQ((*form)[1].size(), 2u);
  form = MetadataQuery::parse("(a == 1 || b == 2) && c == 3").disjunctiveForm();
  ASSERT_TRUE(form);
  ASSERT_EQ(form->size(), 2u);
  EXPECT_EQ((*form)[0][1].attribute, "c");
  EXPECT_EQ((*form)[1][0].attribute, "b");
}

TEST(MetadataQueryTest, RecentFilesQueryReadsTimesAndTypes) {
  double now = 1700000000.5;  // some afternoon
  MetadataQuery query = MetadataQuery::parse(SpotlightQuery::kRecentFilesQuery, now);
  ASSERT_TRUE(query.ok());
  auto form = query.disjunctiveForm();
  ASSERT_EQ(form->size(), 1u);
  const Comparison& date = (*form)[0][0];
  EXPECT_EQ(date.attribute, "kMDItemLastUsedDate");
  EXPECT_EQ(date.op, ComparisonOperator::lessOrEqual);
  ASSERT_EQ(date.value.kind, QueryValue::Kind::number);
  std::time_t t = static_cast<std::time_t>(now);
  std::tm local{};
  localtime_r(&t, &local);
  local.tm_hour = local.tm_min = local.tm_sec = 0;
  local.tm_mday += 30;
  local.tm_isdst = -1;
  EXPECT_EQ(date.value.number, static_cast<double>(std::mktime(&local)));
  const Comparison& type = (*form)[0][1];
  EXPECT_EQ(type.op, ComparisonOperator::notEqual);
  EXPECT_EQ(type.value.text, "public.folder");

  auto nowForm = MetadataQuery::parse("kMDItemFSSize > 10 && kMDItemLastUsedDate >= $time.now(-60)", now).disjunctiveForm();
  ASSERT_TRUE(nowForm);
  EXPECT_EQ((*nowForm)[0][0].value.number, 10);
  EXPECT_EQ((*nowForm)[0][1].value.number, now - 60);
}

TEST(MetadataQueryTest, MalformedStringsFailClearly) {
  const std::vector<std::string> bad = {
      "",
      "kMDItemFSName",
      "kMDItemFSName ==",
      "kMDItemFSName == 'abc",
      "kMDItemFSName == 'abc'x",
      "kMDItemFSName == 'a' &&",
      "kMDItemFSName == 'a' || || b == 'c'",
      "== 'a'",
      "(kMDItemFSName == 'a'",
      "kMDItemFSName == 'a')",
      "kMDItemFSName ~ 'a'",
      "a == $time.yesterday",
      "a == $time.today(",
      "a == $time.today(1e99)",
      "a == 12abc",
      "a == 'x\\",
      std::string(100000, '('),
      std::string("a == \0'x'", 9),
  };
  for (const auto& text : bad) {
    MetadataQuery query = MetadataQuery::parse(text);
    EXPECT_FALSE(query.ok()) << text.substr(0, 40);
    if (!query.ok()) {
      EXPECT_FALSE(query.error()->reason.empty());
      EXPECT_LE(query.error()->position, text.size());
    }
    EXPECT_FALSE(query.disjunctiveForm());
  }
}

TEST(MetadataQueryTest, ConjunctionsThatWouldExplodeAreRefused) {
  // (a || b) && (a || b) && ... twenty times is 2^20 conjunctions.
  std::string text;
  for (int i = 0; i < 20; ++i) text += std::string(i ? " && " : "") + "(a == 1 || b == 2)";
  MetadataQuery query = MetadataQuery::parse(text);
  ASSERT_TRUE(query.ok());
  EXPECT_FALSE(query.disjunctiveForm(256));
  EXPECT_TRUE(MetadataQuery::parse("(a == 1 || b == 2) && (c == 1 || d == 2)").disjunctiveForm(4));
}

}  // namespace
}  // namespace quorvi

// Positions count extended grapheme clusters: emoji sequences, combining marks,
// CJK, flags and CRLF are one character each.
#include <gtest/gtest.h>

#include "fuse/characters.h"
#include "fuse/fuse.h"
#include "fuse/fuse_utilities.h"

namespace quorvi {
namespace {

using Ranges = std::vector<CharacterRange>;

Fuse makeFuse() { return Fuse(0, 100, 0.6, 32, false, false); }

TEST(FuseCharactersTest, CountsGraphemeClusters) {
  EXPECT_EQ(characterCount("abc"), 3u);
  EXPECT_EQ(characterCount("e\xCC\x81"), 1u);                      // e + combining acute
  EXPECT_EQ(characterCount("\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD"), 1u);  // thumbs up + skin tone
  EXPECT_EQ(characterCount("\xF0\x9F\x87\xA6\xF0\x9F\x87\xA7\xF0\x9F\x87\xA8\xF0\x9F\x87\xA9"), 2u);  // two flags
  EXPECT_EQ(characterCount("a\r\nb"), 3u);
  EXPECT_EQ(characterCount("北京"), 2u);
  EXPECT_EQ(characterCount(""), 0u);
}

TEST(FuseCharactersTest, EmojiCountAsOneCharacter) {
  const std::string thumbs = "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD";
  auto match = makeFuse().search("ab", thumbs + "ab");
  ASSERT_TRUE(match);
  EXPECT_DOUBLE_EQ(match->score, 0.01);
  EXPECT_EQ(match->ranges, (Ranges{{1, 2}}));

  const std::string family = "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7";
  auto familyMatch = makeFuse().search(family, "x" + family + "y");
  ASSERT_TRUE(familyMatch);
  EXPECT_DOUBLE_EQ(familyMatch->score, 0.01);
  EXPECT_EQ(familyMatch->ranges, (Ranges{{1, 1}}));
}

TEST(FuseCharactersTest, FlagsDoNotMatchAcrossTheirPairs) {
  const std::string ab = "\xF0\x9F\x87\xA6\xF0\x9F\x87\xA7", cd = "\xF0\x9F\x87\xA8\xF0\x9F\x87\xA9";
  const std::string bc = "\xF0\x9F\x87\xA7\xF0\x9F\x87\xA8";
  EXPECT_EQ(FuseUtilities::findLiteral(bc, ab + cd, 0), -1);
  EXPECT_EQ(FuseUtilities::findLiteral(cd, ab + cd, 0), 1);
  auto match = makeFuse().search(bc, ab + cd);
  ASSERT_TRUE(match);
  EXPECT_EQ(match->score, 1.0);
  EXPECT_TRUE(match->ranges.empty());
}

TEST(FuseCharactersTest, CombiningMarksAndCaseFolding) {
  // Decomposed text, composed pattern: the same characters once folded.
  auto composed = makeFuse().search("Caf\xC3\xA9", "cafe\xCC\x81 bar");
  ASSERT_TRUE(composed);
  EXPECT_EQ(composed->score, 0.0);
  EXPECT_EQ(composed->ranges, (Ranges{{0, 3}}));

  auto umlaut = makeFuse().search("\xC3\xA4rger", "\xC3\x84RGER");  // "ärger" / "ÄRGER"
  ASSERT_TRUE(umlaut);
  EXPECT_EQ(umlaut->score, 0.0);
  EXPECT_EQ(umlaut->ranges, (Ranges{{0, 4}}));

  // A base letter alone is not the accented character.
  auto bare = makeFuse().search("e", "\xC3\xA9");
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->score, 1.0);
}

TEST(FuseCharactersTest, FoldingFollowsFullUnicodeLowercasing) {
  // The Kelvin sign folds to ASCII "k".
  EXPECT_EQ(makeFuse().search("k", "\xE2\x84\xAA")->score, 0.0);
  // A capital sigma at the end of a word becomes the final form.
  const std::string odos = "\xCE\x9F\xCE\x94\xCE\x9F\xCE\xA3";  // "ΟΔΟΣ"
  EXPECT_EQ(makeFuse().search("\xCE\xBF\xCE\xB4\xCE\xBF\xCF\x82", odos)->score, 0.0);
  EXPECT_GT(makeFuse().search("\xCE\xBF\xCE\xB4\xCE\xBF\xCF\x83", odos)->score, 0.0);
  // Dotted capital I becomes i + combining dot: still one character.
  auto istanbul = makeFuse().search("stanbul", "\xC4\xB0stanbul");
  ASSERT_TRUE(istanbul);
  EXPECT_DOUBLE_EQ(istanbul->score, 0.01);
  EXPECT_EQ(istanbul->ranges, (Ranges{{1, 7}}));
  // Case-sensitive matching keeps the case of non-ASCII letters.
  Fuse sensitive(0, 100, 0.6, 32, true, false);
  EXPECT_EQ(sensitive.search("\xC3\xA9t\xC3\xA9", "\xC3\x89t\xC3\xA9")->score, 1.0 / 3.0);
}

TEST(FuseCharactersTest, CjkAndLineBreaks) {
  auto cjk = makeFuse().search("北京", "去北京的路");
  ASSERT_TRUE(cjk);
  EXPECT_DOUBLE_EQ(cjk->score, 0.01);
  EXPECT_EQ(cjk->ranges, (Ranges{{1, 2}}));

  auto longer = makeFuse().search("hij", "ABCDEFG\r\nHIJ");  // CR LF inside the first eight bytes
  ASSERT_TRUE(longer);
  EXPECT_DOUBLE_EQ(longer->score, 0.08);
  EXPECT_EQ(longer->ranges, (Ranges{{8, 10}}));

  auto crlf = makeFuse().search("b", "a\r\nb");
  ASSERT_TRUE(crlf);
  EXPECT_DOUBLE_EQ(crlf->score, 0.02);
  EXPECT_EQ(crlf->ranges, (Ranges{{2, 2}}));
}

TEST(FuseCharactersTest, InvalidUtf8NeitherCrashesNorMatchesWrongly) {
  auto match = makeFuse().search("ab", std::string("\xFF\xFE" "ab", 4));
  ASSERT_TRUE(match);
  EXPECT_LT(match->score, 0.6);
}

}  // namespace
}  // namespace quorvi

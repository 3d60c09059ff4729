#include "pinyin/utf8_text.h"

#include <gtest/gtest.h>

namespace quorvi {
namespace {

TEST(Utf8TextTest, DecodesValidSequencesAndStepsOverInvalidOnes) {
  Utf8Step chinese = decodeUtf8("\xe4\xb8\x80x", 0);  // 一
  EXPECT_TRUE(chinese.valid);
  EXPECT_EQ(chinese.codePoint, U'一');
  EXPECT_EQ(chinese.length, 3u);

  // Truncated, overlong, surrogate, beyond U+10FFFF and a stray continuation
  // byte are all invalid and still advance.
  for (std::string bad : {"\xe4\xb8", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\x80"}) {
    Utf8Step step = decodeUtf8(bad, 0);
    EXPECT_FALSE(step.valid) << bad.size();
    EXPECT_GE(step.length, 1u);
    EXPECT_LE(step.length, bad.size());
  }
  // A lead byte after a broken sequence starts a character of its own.
  std::string mixed = "\xe4\xe4\xb8\x80";
  Utf8Step first = decodeUtf8(mixed, 0);
  EXPECT_FALSE(first.valid);
  EXPECT_EQ(first.length, 1u);
  EXPECT_TRUE(decodeUtf8(mixed, 1).valid);
}

TEST(Utf8TextTest, LowercasesFullyAndKeepsInvalidBytes) {
  EXPECT_EQ(lowercased("ReadMe.TXT"), "readme.txt");
  EXPECT_EQ(lowercased("ÄÖÜ ΣΑΣ"), "äöü σας");  // final sigma: full lowercasing
  EXPECT_EQ(lowercased("İ"), "i\xcc\x87");        // root locale, not Turkish
  EXPECT_EQ(lowercased("A\xffÄ\xe4\xb8"), "a\xffä\xe4\xb8");
  EXPECT_EQ(lowercased(""), "");
}

TEST(Utf8TextTest, AppendsUtf8) {
  std::string out;
  appendUtf8(out, U'龥');
  appendUtf8(out, U'a');
  EXPECT_EQ(out, "龥a");
}

}  // namespace
}  // namespace quorvi

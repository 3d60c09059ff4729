// TextPattern: a text value of a metadata query (see metadata_query.h) made
// ready to test names against.
//
// Folding (ICU): with the c modifier both sides are case-folded (full
// folding, "ß" matches "ss"); with d they are decomposed (NFD) and the
// combining marks dropped, so "cafe" matches "Café". Invalid UTF-8 in a name
// is kept as U+FFFD and matches nothing but itself.
//
// Words (the w modifier): a word starts at the start of the text, after a
// character that is neither a letter nor a digit, at a change from lower to
// upper case ("reportFinal"), at the last capital of a run of capitals that
// a lower-case letter follows ("PDFReport"), and at every ideograph (Chinese
// is written without spaces: each character may begin a word, "年度报告" is
// found by "报告"). A pattern then matches when it matches from some word
// start; a pattern without a trailing "*" must also end where a word ends
// (before a word start or a character that is neither letter nor digit). Without w the pattern must match from the
// start of the text (and to its end unless it ends with "*").
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "spotlight/metadata_query.h"

namespace quorvi {

// A text folded for matching, with the byte offsets at which words start.
struct FoldedText {
  std::string text;
  std::vector<bool> wordStart;  // one entry per byte of `text`, plus one for the end
  std::vector<bool> wordEnd;    // a word may end before this byte; likewise
};

FoldedText foldText(std::string_view text, bool caseInsensitive, bool diacriticInsensitive);

// The text case-folded with its diacritics dropped, every character that does
// not fold to ASCII written as the byte 0x01: a cheap stand-in for a name
// that is not ASCII, in which a pattern's ASCII required bytes can still be
// looked for (a name that matches always holds them in this form).
void asciiSkeleton(std::string_view text, std::string& out);

// Whether asciiSkeleton(text) is only the text with each character that is
// not ASCII written as 0x01: the text has no upper-case ASCII letter and no
// character that folds into ASCII or into nothing ("é", a combining accent,
// "ﬁ", the Kelvin sign). Then a run of ASCII bytes without 0x01 is in the
// skeleton only where it is in the text, and the skeleton need not be built.
// A NUL ends the text (a record's whole region may be passed).
bool asciiSkeletonOnlyMasks(std::string_view text);

class TextPattern {
 public:
  explicit TextPattern(const QueryValue& value);

  bool matches(std::string_view text) const;
  bool matches(const FoldedText& folded) const;
  FoldedText fold(std::string_view text) const { return foldText(text, caseInsensitive_, diacriticInsensitive_); }

  // A run of bytes every text this pattern matches holds, once lower-cased,
  // when the text is ASCII; in the ASCII skeleton of any text when the bytes
  // are ASCII; and in any text when `requiredBytesHoldInAnyText`. Lets a
  // search skip most names with one memmem. Empty when there is none.
  const std::string& requiredLowercaseBytes() const { return required_; }
  bool requiredBytesHoldInAnyText() const { return requiredInAny_; }

  bool caseInsensitive() const { return caseInsensitive_; }
  bool diacriticInsensitive() const { return diacriticInsensitive_; }

 private:
  bool matchesFrom(const FoldedText& folded, std::size_t start) const;

  std::vector<std::string> segments_;  // folded literal parts between stars
  bool leadingStar_ = false;
  bool caseInsensitive_ = false;
  bool diacriticInsensitive_ = false;
  bool wordBased_ = false;
  std::string required_;
  bool requiredInAny_ = false;
};

}  // namespace quorvi

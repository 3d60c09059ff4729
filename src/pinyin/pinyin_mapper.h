// PinyinMapper: lets users find Chinese names by typing Latin letters. For a
// name holding Chinese characters it gives the name's full pinyin strings and
// the strings of their initials, both lowercase. One shared mapper serves the
// whole process and may be called from many threads at once.
//
// Readings: two whole names have fixed answers (微信, 企业微信); three words
// that the generic transliteration reads wrongly are replaced first (劳动,
// 合同, 强化); polyphonic characters take their readings from the polyphone
// table (pinyin/polyphone_table.h); every other character takes ICU's one
// reading, transliterated once per process (pinyin/han_readings.h).
//
// Words: a polyphone's first reading is often not the one a word needs (银行
// is typed "yinhang", 行 alone reads "xing" first). So the Chinese text is
// cut, left to right, into the longest words of the word table
// (pinyin/word_table.h), and each character of such a word takes the word's
// reading first, its other readings after it.
//
// Combining: each Chinese character is a segment of alternatives, each run of
// other text a segment of its own; the strings are the product of the
// segments in order, except that once there are more than three strings,
// later segments add only their first reading. The first string therefore
// reads every word as the word table has it.
//
// Initials keep, of each string before it is lowercased: the capitals (every
// syllable is capitalised, and capitals of the other text count too) and the
// letters and digits that have no case at all (2024, kana, Hangul, a Chinese
// character without a Latin reading). Lower-case letters, punctuation,
// symbols, spaces and invalid bytes are left out: 报告2024.pdf gives
// "baogao2024.pdf" and "bg2024".
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

struct PinyinForms {
  std::vector<std::string> fullPinyins;
  std::vector<std::string> initials;
};

class PinyinMapper {
 public:
  static PinyinMapper& shared();

  // Reads the polyphone and word tables from the resource directory.
  PinyinMapper();
  // Reads the polyphone table from tablePath and the word table from the
  // resource directory. A missing or malformed polyphone table leaves the
  // mapper without one: every character then gets one reading.
  explicit PinyinMapper(const std::string& tablePath);
  // Reads both tables from the paths given. A missing or malformed word
  // table leaves the mapper without one: words are read character by
  // character.
  PinyinMapper(const std::string& tablePath, const std::string& wordTablePath);
  ~PinyinMapper();
  PinyinMapper(const PinyinMapper&) = delete;
  PinyinMapper& operator=(const PinyinMapper&) = delete;

  // True when some character lies in U+4E00..U+9FA5 (UTF-8 input).
  static bool containsChinese(std::string_view text);
  // The full pinyin strings and initials of a name (UTF-8, possibly
  // invalid: invalid bytes count as plain text), lowercase, without
  // duplicates. Empty forms for a name without Chinese characters.
  PinyinForms map(std::string_view name) const;

  // How many characters the polyphone table gave readings for (0 without).
  std::size_t polyphoneCount() const;
  // Why the table was not used; empty when it was.
  const std::string& tableError() const;
  // How many words the word table gave readings for (0 without).
  std::size_t wordCount() const;
  // Why the word table was not used; empty when it was.
  const std::string& wordTableError() const;

 private:
  struct Table;
  const std::vector<std::string>& readingsOf(char32_t character) const;

  std::unique_ptr<Table> table_;
};

// The keyword form of a text: the text in lower case, followed, when it
// contains Chinese, by its full pinyin strings and then its initials, all
// joined with single blanks.
std::string keywordForm(std::string_view text);

}  // namespace quorvi

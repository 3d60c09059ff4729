// PinyinMapper: lets users find Chinese names by typing Latin letters. For a
// name holding Chinese characters it gives the name's full pinyin strings and
// the strings of their initials, both lowercase. One shared mapper serves the
// whole process and may be called from many threads at once.
#pragma once

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

  // True when some character lies in U+4E00..U+9FA5 (UTF-8 input).
  static bool containsChinese(std::string_view text);
  // The full pinyin strings and initials of a name (UTF-8), lowercase.
  PinyinForms map(std::string_view name) const;
};

// The keyword form of a text: the text in lower case, followed, when it
// contains Chinese, by its full pinyin strings and then its initials, all
// joined with single blanks.
std::string keywordForm(std::string_view text);

}  // namespace quorvi

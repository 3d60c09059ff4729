// Placeholder until the mapper is built: no readings, plain lowercasing.
#include "pinyin/pinyin_mapper.h"

#include <cctype>

namespace quorvi {

PinyinMapper& PinyinMapper::shared() {
  static auto* mapper = new PinyinMapper();
  return *mapper;
}

bool PinyinMapper::containsChinese(std::string_view) { return false; }

PinyinForms PinyinMapper::map(std::string_view) const { return {}; }

std::string keywordForm(std::string_view text) {
  std::string out(text);
  for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace quorvi

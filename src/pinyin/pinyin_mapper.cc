#include "pinyin/pinyin_mapper.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <cstdio>

#include "pinyin/han_readings.h"
#include "pinyin/polyphone_table.h"
#include "pinyin/utf8_text.h"
#include "pinyin/word_index.h"
#include "pinyin/word_table.h"

namespace quorvi {

namespace {

struct CommonPinyin {
  std::string_view name;
  std::string_view fullPinyin;
  std::string_view initials;
};

// Whole names answered without looking at their characters.
constexpr CommonPinyin kCommonPinyins[] = {
    {"微信", "weixin", "wx"},
    {"企业微信", "qiyeweixin", "qywx"},
};

// Words whose characters the generic transliteration reads wrongly, replaced
// in this order before the walk; their capitals give the initials.
constexpr std::pair<std::string_view, std::string_view> kCommonWordReplacements[] = {
    {"劳动", "LaoDong"},
    {"合同", "HeTong"},
    {"强化", "QiangHua"},
};

// More strings than this and later segments add only their first reading.
constexpr std::size_t kCombinationLimit = 3;

bool holdsCommonWord(std::string_view name) {
  for (const auto& [word, replacement] : kCommonWordReplacements) {
    if (name.find(word) != std::string_view::npos) return true;
  }
  return false;
}

std::string withCommonWordsReplaced(std::string_view name) {
  std::string text(name);
  for (const auto& [word, replacement] : kCommonWordReplacements) {
    // UTF-8 is self-synchronising: a byte match of a valid word is a
    // character match, even next to invalid bytes.
    for (std::size_t at = text.find(word); at != std::string::npos;
         at = text.find(word, at + replacement.size())) {
      text.replace(at, word.size(), replacement);
    }
  }
  return text;
}

// The product of the segments so far, cut as described in the header.
class Combinations {
 public:
  void addPlainText(std::string_view text) {
    for (auto& string : strings_) string.append(text);
  }
  void addAlternatives(const std::vector<std::string>& alternatives) {
    if (alternatives.size() == 1 || strings_.size() > kCombinationLimit) {
      addPlainText(alternatives.front());
      return;
    }
    std::vector<std::string> product;
    product.reserve(strings_.size() * alternatives.size());
    for (const auto& string : strings_) {
      for (const auto& alternative : alternatives) product.push_back(string + alternative);
    }
    strings_ = std::move(product);
  }
  const std::vector<std::string>& strings() const { return strings_; }

 private:
  std::vector<std::string> strings_{std::string()};
};

bool keepsAsInitial(char32_t c) {
  if (c < 0x80) return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  const auto uc = static_cast<UChar32>(c);
  if (u_hasBinaryProperty(uc, UCHAR_UPPERCASE) || u_charType(uc) == U_TITLECASE_LETTER) return true;
  if (u_hasBinaryProperty(uc, UCHAR_CASED)) return false;
  const int32_t category = U_GET_GC_MASK(uc);
  return (category & (U_GC_L_MASK | U_GC_N_MASK)) != 0;
}

// The initials of one string before it is lowercased.
std::string initialsOf(std::string_view string) {
  std::string initials;
  for (std::size_t offset = 0; offset < string.size();) {
    const auto byte = static_cast<unsigned char>(string[offset]);
    if (byte < 0x80) {  // most of every string: capitals of syllables, digits, ASCII text
      if (keepsAsInitial(byte)) initials.push_back(static_cast<char>(byte));
      ++offset;
      continue;
    }
    Utf8Step step = decodeUtf8(string, offset);
    if (step.valid && keepsAsInitial(step.codePoint)) initials.append(string.substr(offset, step.length));
    offset += step.length;
  }
  return initials;
}

void appendUnique(std::vector<std::string>& list, std::string value) {
  if (std::find(list.begin(), list.end(), value) == list.end()) list.push_back(std::move(value));
}

// The lowercase string and its initials in one pass; false (and nothing
// written) when the string is not all ASCII.
bool asciiFormsOf(std::string_view string, std::string& full, std::string& initials) {
  for (unsigned char c : string) {
    if (c >= 0x80) return false;
  }
  full.resize(string.size());
  for (std::size_t i = 0; i < string.size(); ++i) {
    const char c = string[i];
    const bool capital = c >= 'A' && c <= 'Z';
    full[i] = capital ? static_cast<char>(c + 32) : c;
    if (capital || (c >= '0' && c <= '9')) initials.push_back(full[i]);
  }
  return true;
}

PinyinForms formsOf(const std::vector<std::string>& strings) {
  PinyinForms forms;
  forms.fullPinyins.reserve(strings.size());
  for (const auto& string : strings) {
    std::string full, initials;
    if (!asciiFormsOf(string, full, initials)) {
      full = lowercased(string);
      initials = lowercased(initialsOf(string));
    }
    appendUnique(forms.fullPinyins, std::move(full));
    appendUnique(forms.initials, std::move(initials));
  }
  return forms;
}

}  // namespace

// The polyphone table with capitalised readings ("Hang"), indexed by code
// point, and the word table. Filled in the constructor and read-only
// afterwards, so lookups need no lock.
struct PinyinMapper::Table {
  std::vector<std::vector<std::string>> readings;  // empty: not polyphonic
  std::size_t count = 0;
  std::string error;
  WordIndex words;
  std::string wordError;
};

PinyinMapper& PinyinMapper::shared() {
  // Never destroyed: scan threads may still use it while the process exits.
  static auto* mapper = [] {
    auto* created = new PinyinMapper();
    if (!created->tableError().empty()) {
      std::fprintf(stderr, "quorvifind: pinyin polyphone table not used (%s); each character gets one reading\n",
                   created->tableError().c_str());
    }
    if (!created->wordTableError().empty()) {
      std::fprintf(stderr, "quorvifind: pinyin word table not used (%s); words are read character by character\n",
                   created->wordTableError().c_str());
    }
    return created;
  }();
  return *mapper;
}

PinyinMapper::PinyinMapper() : PinyinMapper(defaultPolyphoneTablePath()) {}

PinyinMapper::PinyinMapper(const std::string& tablePath) : PinyinMapper(tablePath, defaultWordTablePath()) {}

PinyinMapper::PinyinMapper(const std::string& tablePath, const std::string& wordTablePath)
    : table_(std::make_unique<Table>()) {
  PolyphoneTableReading reading = readPolyphoneTable(tablePath);
  table_->error = std::move(reading.error);
  table_->readings.resize(kChineseCodePointCount);
  for (auto& [character, readings] : reading.table) {
    auto& slot = table_->readings[character - kFirstChineseCodePoint];
    for (const auto& plain : readings) slot.push_back(capitalizedReading(plain));
    ++table_->count;
  }
  WordTableReading words = readWordTable(wordTablePath);
  table_->wordError = std::move(words.error);
  table_->words = WordIndex(words.words, [this](char32_t character) -> const std::vector<std::string>& {
    return table_->readings[character - kFirstChineseCodePoint];
  });
}

PinyinMapper::~PinyinMapper() = default;

std::size_t PinyinMapper::polyphoneCount() const { return table_->count; }

const std::string& PinyinMapper::tableError() const { return table_->error; }

std::size_t PinyinMapper::wordCount() const { return table_->words.size(); }

const std::string& PinyinMapper::wordTableError() const { return table_->wordError; }

bool PinyinMapper::containsChinese(std::string_view text) {
  // U+4E00..U+9FA5 are three-byte sequences led by 0xE4..0xE9; a lead byte
  // is never part of an earlier sequence, so decoding from it is safe.
  for (std::size_t offset = 0; offset < text.size(); ++offset) {
    const auto byte = static_cast<unsigned char>(text[offset]);
    if (byte < 0xE4 || byte > 0xE9) continue;
    Utf8Step step = decodeUtf8(text, offset);
    if (step.valid && isChineseCodePoint(step.codePoint)) return true;
  }
  return false;
}

const std::vector<std::string>& PinyinMapper::readingsOf(char32_t character) const {
  const auto& polyphonic = table_->readings[character - kFirstChineseCodePoint];
  if (!polyphonic.empty()) return polyphonic;
  return HanReadings::shared().readingsOf(character);
}

PinyinForms PinyinMapper::map(std::string_view name) const {
  for (const auto& common : kCommonPinyins) {
    if (name == common.name) return {{std::string(common.fullPinyin)}, {std::string(common.initials)}};
  }
  if (!containsChinese(name)) return {};
  std::string replaced;
  std::string_view text = name;
  if (holdsCommonWord(name)) text = replaced = withCommonWordsReplaced(name);
  Combinations combinations;
  std::size_t pendingStart = 0;
  std::size_t offset = 0;
  while (offset < text.size()) {
    if (static_cast<unsigned char>(text[offset]) < 0x80) {
      ++offset;
      continue;
    }
    Utf8Step step = decodeUtf8(text, offset);
    if (step.valid && isChineseCodePoint(step.codePoint)) {
      combinations.addPlainText(text.substr(pendingStart, offset - pendingStart));
      // The longest listed word starting here gives its characters their
      // readings, its own first; any other character reads alone.
      WordIndex::Match word = table_->words.longestWordAt(text, offset, step.codePoint);
      if (word.length > 0) {
        for (std::size_t k = 0; k < word.length; ++k) combinations.addAlternatives(word.readings[k]);
        offset += word.length * step.length;
      } else {
        combinations.addAlternatives(readingsOf(step.codePoint));
        offset += step.length;
      }
      pendingStart = offset;
      continue;
    }
    offset += step.length;
  }
  combinations.addPlainText(text.substr(pendingStart));
  return formsOf(combinations.strings());
}

std::string keywordForm(std::string_view text) {
  std::string form = lowercased(text);
  if (!PinyinMapper::containsChinese(text)) return form;
  PinyinForms forms = PinyinMapper::shared().map(text);
  for (const auto& full : forms.fullPinyins) form.append(" ").append(full);
  for (const auto& initials : forms.initials) form.append(" ").append(initials);
  return form;
}

}  // namespace quorvi

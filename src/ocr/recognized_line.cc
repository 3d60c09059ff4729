#include "ocr/recognized_line.h"

#include <unicode/utf8.h>

#include <cmath>

namespace quorvi {

namespace {

bool isCjk(UChar32 c) {
  return (c >= 0x2E80 && c <= 0x2FDF) ||    // radicals
         (c >= 0x3000 && c <= 0x30FF) ||    // CJK punctuation, hiragana, katakana
         (c >= 0x3400 && c <= 0x4DBF) ||    // extension A
         (c >= 0x4E00 && c <= 0x9FFF) ||    // unified ideographs
         (c >= 0xF900 && c <= 0xFAFF) ||    // compatibility ideographs
         (c >= 0xFF00 && c <= 0xFFEF) ||    // full-width forms
         (c >= 0x20000 && c <= 0x3134F);    // extensions B and later
}

struct Character {
  std::string_view bytes;
  UChar32 codePoint;
};

std::vector<Character> charactersOf(std::string_view text) {
  std::vector<Character> characters;
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  int32_t length = static_cast<int32_t>(text.size());
  for (int32_t i = 0; i < length;) {
    int32_t start = i;
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    characters.push_back({text.substr(start, i - start), c});
  }
  return characters;
}

bool isBlank(UChar32 c) { return c == ' ' || c == '\t'; }

}  // namespace

std::string withoutBlanksBetweenCjkCharacters(std::string_view text) {
  std::vector<Character> characters = charactersOf(text);
  std::size_t begin = 0, end = characters.size();
  while (begin < end && (isBlank(characters[begin].codePoint) || characters[begin].codePoint == '\n')) ++begin;
  while (end > begin && (isBlank(characters[end - 1].codePoint) || characters[end - 1].codePoint == '\n')) --end;
  std::string result;
  for (std::size_t i = begin; i < end;) {
    if (!isBlank(characters[i].codePoint)) {
      result.append(characters[i].bytes);
      ++i;
      continue;
    }
    std::size_t runEnd = i;
    while (runEnd < end && isBlank(characters[runEnd].codePoint)) ++runEnd;
    bool betweenCjk = i > begin && runEnd < end && isCjk(characters[i - 1].codePoint) &&
                      isCjk(characters[runEnd].codePoint);
    if (!betweenCjk) {
      for (std::size_t k = i; k < runEnd; ++k) result.append(characters[k].bytes);
    }
    i = runEnd;
  }
  return result;
}

Json recognizedLinesJson(const std::vector<RecognizedLine>& lines, int64_t identifier) {
  Json array = Json::array();
  for (const auto& line : lines) {
    Json object = Json::object();
    object["identifier"] = identifier;
    object["isFlipped"] = true;
    object["text"] = line.text;
    object["frame"] = {{"x", line.frame.x}, {"y", line.frame.y}, {"width", line.frame.width},
                       {"height", line.frame.height}};
    object["confidence"] = std::round(line.confidence * 10000) / 10000;
    array.push_back(std::move(object));
  }
  return array;
}

}  // namespace quorvi

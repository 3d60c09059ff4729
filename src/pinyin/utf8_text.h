// UTF-8 text as file names bring it: possibly invalid. These helpers walk it
// code point by code point, treat every invalid byte as a character of its
// own, and lowercase it without ever losing or changing the invalid bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quorvi {

// The Chinese characters that get pinyin: U+4E00 "一" to U+9FA5 "龥".
inline constexpr char32_t kFirstChineseCodePoint = 0x4E00;
inline constexpr char32_t kLastChineseCodePoint = 0x9FA5;
inline constexpr std::size_t kChineseCodePointCount =
    kLastChineseCodePoint - kFirstChineseCodePoint + 1;

inline bool isChineseCodePoint(char32_t c) {
  return c >= kFirstChineseCodePoint && c <= kLastChineseCodePoint;
}

// One step of a UTF-8 walk. An invalid sequence yields valid == false and the
// length of its maximal ill-formed part (at least 1), so a walk always advances.
struct Utf8Step {
  char32_t codePoint = 0;
  std::size_t length = 1;
  bool valid = false;
};
Utf8Step decodeUtf8(std::string_view text, std::size_t offset);

// Full Unicode lowercasing (root locale) of the valid parts; invalid bytes
// are copied as they are. ASCII-only text takes a fast path.
std::string lowercased(std::string_view text);

// Appends the UTF-8 form of a code point.
void appendUtf8(std::string& out, char32_t codePoint);

}  // namespace quorvi

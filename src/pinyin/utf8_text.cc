#include "pinyin/utf8_text.h"

#include <unicode/unistr.h>
#include <unicode/utf8.h>
#include <unicode/locid.h>

#include <cstdint>

namespace quorvi {

Utf8Step decodeUtf8(std::string_view text, std::size_t offset) {
  // A sequence is at most four bytes: decoding from a window of four keeps
  // ICU's 32-bit indices small whatever the length of the text.
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data() + offset);
  const std::size_t remaining = text.size() - offset;
  const int32_t limit = static_cast<int32_t>(remaining < 4 ? remaining : 4);
  int32_t index = 0;
  UChar32 c = 0;
  U8_NEXT(bytes, index, limit, c);
  Utf8Step step;
  step.length = index > 0 ? static_cast<std::size_t>(index) : 1;
  step.valid = c >= 0;
  step.codePoint = c >= 0 ? static_cast<char32_t>(c) : 0;
  return step;
}

void appendUtf8(std::string& out, char32_t codePoint) {
  uint8_t buffer[4];
  int32_t length = 0;
  UBool error = false;
  U8_APPEND(buffer, length, 4, static_cast<UChar32>(codePoint), error);
  if (!error) out.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
}

namespace {

bool isAscii(std::string_view text) {
  for (unsigned char c : text) {
    if (c >= 0x80) return false;
  }
  return true;
}

void appendAsciiLowercased(std::string& out, std::string_view text) {
  for (char c : text) out.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c);
}

void appendValidLowercased(std::string& out, std::string_view text) {
  if (isAscii(text)) {
    appendAsciiLowercased(out, text);
    return;
  }
  icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  unicode.toLower(icu::Locale::getRoot());
  unicode.toUTF8String(out);
}

}  // namespace

std::string lowercased(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  if (isAscii(text)) {
    appendAsciiLowercased(out, text);
    return out;
  }
  std::size_t runStart = 0;
  std::size_t offset = 0;
  while (offset < text.size()) {
    Utf8Step step = decodeUtf8(text, offset);
    if (!step.valid) {
      appendValidLowercased(out, text.substr(runStart, offset - runStart));
      out.append(text.substr(offset, step.length));
      runStart = offset + step.length;
    }
    offset += step.length;
  }
  appendValidLowercased(out, text.substr(runStart));
  return out;
}

}  // namespace quorvi

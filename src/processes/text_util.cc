#include "processes/text_util.h"

#include <charconv>

namespace quorvi::text {

bool isValidUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  size_t i = 0, n = text.size();
  while (i < n) {
    unsigned char c = bytes[i];
    if (c < 0x80) { ++i; continue; }
    size_t length;
    uint32_t codePoint;
    if ((c & 0xE0) == 0xC0) { length = 2; codePoint = c & 0x1F; }
    else if ((c & 0xF0) == 0xE0) { length = 3; codePoint = c & 0x0F; }
    else if ((c & 0xF8) == 0xF0) { length = 4; codePoint = c & 0x07; }
    else return false;
    if (i + length > n) return false;
    for (size_t k = 1; k < length; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (bytes[i + k] & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
    static const uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (codePoint < kSmallest[length] || codePoint > 0x10FFFF) return false;
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return false;
    i += length;
  }
  return true;
}

std::vector<std::string_view> splitDroppingEmpty(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(separator, start);
    if (end == std::string_view::npos) end = text.size();
    if (end > start) pieces.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return pieces;
}

std::vector<std::string_view> splitAtWhiteSpace(std::string_view text) {
  std::vector<std::string_view> pieces;
  auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; };
  size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && isSpace(text[i])) ++i;
    size_t start = i;
    while (i < text.size() && !isSpace(text[i])) ++i;
    if (i > start) pieces.push_back(text.substr(start, i - start));
  }
  return pieces;
}

std::optional<int64_t> parseDecimal(std::string_view piece) {
  bool negative = false;
  if (!piece.empty() && (piece[0] == '+' || piece[0] == '-')) {
    negative = piece[0] == '-';
    piece.remove_prefix(1);
  }
  if (piece.empty() || piece[0] == '+' || piece[0] == '-') return std::nullopt;
  uint64_t magnitude = 0;
  auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), magnitude);
  if (error != std::errc() || end != piece.data() + piece.size()) return std::nullopt;
  if (negative) {
    if (magnitude > uint64_t(INT64_MAX) + 1) return std::nullopt;
    return int64_t(0 - magnitude);
  }
  if (magnitude > uint64_t(INT64_MAX)) return std::nullopt;
  return int64_t(magnitude);
}

std::string replaceAll(std::string text, std::string_view from, std::string_view to) {
  if (from.empty()) return text;
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string asciiLowercase(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  }
  return lowered;
}

std::string lastPathComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

}  // namespace quorvi::text

#include "spotlight/text_pattern.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "pinyin/utf8_text.h"

namespace quorvi {

namespace {

// The folded UTF-8 form of one code point, cached per thread (names repeat
// the same few hundred characters).
const std::string& foldedCodePoint(char32_t c, bool caseInsensitive, bool diacriticInsensitive) {
  thread_local std::unordered_map<uint64_t, std::string> cache;
  uint64_t key = (static_cast<uint64_t>(c) << 2) | (caseInsensitive ? 1 : 0) | (diacriticInsensitive ? 2 : 0);
  auto found = cache.find(key);
  if (found != cache.end()) return found->second;
  if (cache.size() > 65536) cache.clear();

  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString text(static_cast<UChar32>(c));
  if (diacriticInsensitive) {
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    if (U_SUCCESS(status)) {
      icu::UnicodeString decomposed = nfd->normalize(text, status);
      if (U_SUCCESS(status)) text = decomposed;
    }
    icu::UnicodeString kept;
    for (int32_t i = 0; i < text.length();) {
      UChar32 cp = text.char32At(i);
      if (u_charType(cp) != U_NON_SPACING_MARK) kept.append(cp);
      i += U16_LENGTH(cp);
    }
    text = kept;
  }
  if (caseInsensitive) text.foldCase();
  std::string out;
  text.toUTF8String(out);
  return cache.emplace(key, std::move(out)).first->second;
}

enum class CharClass { other, lower, upper, otherLetterOrDigit, ideograph, mark };

CharClass classify(char32_t c) {
  if (c < 0x80) {
    if (c >= 'a' && c <= 'z') return CharClass::lower;
    if (c >= 'A' && c <= 'Z') return CharClass::upper;
    if (c >= '0' && c <= '9') return CharClass::otherLetterOrDigit;
    return CharClass::other;
  }
  int8_t type = u_charType(static_cast<UChar32>(c));
  if (type == U_NON_SPACING_MARK || type == U_COMBINING_SPACING_MARK || type == U_ENCLOSING_MARK) return CharClass::mark;
  if (u_hasBinaryProperty(static_cast<UChar32>(c), UCHAR_IDEOGRAPHIC)) return CharClass::ideograph;
  if (type == U_LOWERCASE_LETTER) return CharClass::lower;
  if (type == U_UPPERCASE_LETTER || type == U_TITLECASE_LETTER) return CharClass::upper;
  if (u_isalnum(static_cast<UChar32>(c))) return CharClass::otherLetterOrDigit;
  return CharClass::other;
}

bool isWordy(CharClass k) { return k != CharClass::other && k != CharClass::mark; }

}  // namespace

FoldedText foldText(std::string_view text, bool caseInsensitive, bool diacriticInsensitive) {
  FoldedText out;
  out.text.reserve(text.size());
  out.wordStart.reserve(text.size() + 1);
  out.wordEnd.reserve(text.size() + 1);

  // Classes of the code points, marks skipped (a mark belongs to its letter).
  struct Point {
    std::size_t offset, length;
    char32_t codePoint;
    CharClass kind;
  };
  std::vector<Point> points;
  points.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    unsigned char byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x80) {
      points.push_back({at, 1, byte, classify(byte)});
      ++at;
      continue;
    }
    Utf8Step step = decodeUtf8(text, at);
    char32_t c = step.valid ? step.codePoint : 0xFFFD;
    points.push_back({at, step.length, c, classify(c)});
    at += step.length;
  }

  CharClass previous = CharClass::other;  // class of the last non-mark point
  for (std::size_t i = 0; i < points.size(); ++i) {
    const Point& p = points[i];
    bool starts = false;
    if (p.kind != CharClass::mark) {
      if (!isWordy(previous)) {
        starts = true;
      } else if (p.kind == CharClass::upper && previous == CharClass::lower) {
        starts = true;
      } else if (p.kind == CharClass::upper && previous == CharClass::upper) {
        std::size_t next = i + 1;
        while (next < points.size() && points[next].kind == CharClass::mark) ++next;
        starts = next < points.size() && points[next].kind == CharClass::lower;
      } else if (p.kind == CharClass::ideograph || previous == CharClass::ideograph) {
        starts = true;
      }
      previous = p.kind;
    }
    std::size_t before = out.text.size();
    if (p.codePoint < 0x80) {
      char c = static_cast<char>(p.codePoint);
      if (caseInsensitive && c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
      out.text.push_back(c);
    } else if (!caseInsensitive && !diacriticInsensitive) {
      appendUtf8(out.text, p.codePoint);
    } else {
      out.text += foldedCodePoint(p.codePoint, caseInsensitive, diacriticInsensitive);
    }
    bool endsBefore = p.kind != CharClass::mark && (starts || !isWordy(p.kind));
    for (std::size_t b = before; b < out.text.size(); ++b) {
      out.wordStart.push_back(starts && b == before);
      out.wordEnd.push_back(endsBefore && b == before);
    }
  }
  out.wordStart.push_back(true);  // the end counts as a word boundary
  out.wordEnd.push_back(true);
  return out;
}

void asciiSkeleton(std::string_view text, std::string& out) {
  out.clear();
  for (std::size_t at = 0; at < text.size();) {
    unsigned char byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x80) {
      out.push_back(static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte | 0x20 : byte));
      ++at;
      continue;
    }
    Utf8Step step = decodeUtf8(text, at);
    at += step.length;
    const std::string& folded = foldedCodePoint(step.valid ? step.codePoint : 0xFFFD, true, true);
    bool ascii = std::all_of(folded.begin(), folded.end(), [](char c) { return (c & 0x80) == 0; });
    if (ascii) {
      out += folded;  // "é" → "e", a combining mark → nothing
    } else {
      out.push_back('\x01');
    }
  }
}

bool asciiSkeletonOnlyMasks(std::string_view text) {
  // Per code point of the Basic Multilingual Plane: 0 not looked at yet,
  // 1 written as 0x01 in a skeleton, 2 folds into ASCII (or nothing).
  thread_local std::vector<uint8_t> bmp;
  auto masked = [](char32_t c) {
    const std::string& folded = foldedCodePoint(c, true, true);
    return std::any_of(folded.begin(), folded.end(), [](char b) { return (b & 0x80) != 0; });
  };
  for (std::size_t at = 0; at < text.size();) {
    unsigned char byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x80) {
      if (byte == 0) break;
      if (byte >= 'A' && byte <= 'Z') return false;
      ++at;
      continue;
    }
    // The two- and three-byte forms names mostly use are decoded here; the
    // rest (and anything malformed) as asciiSkeleton decodes them.
    char32_t c;
    auto continues = [&](std::size_t k) {
      return at + k < text.size() && (static_cast<unsigned char>(text[at + k]) & 0xC0) == 0x80;
    };
    if (byte >= 0xC2 && byte <= 0xDF && continues(1)) {
      c = (static_cast<char32_t>(byte & 0x1F) << 6) | (static_cast<unsigned char>(text[at + 1]) & 0x3F);
      at += 2;
    } else if (((byte >= 0xE1 && byte <= 0xEC) || byte == 0xEE || byte == 0xEF) && continues(1) && continues(2)) {
      c = (static_cast<char32_t>(byte & 0x0F) << 12) |
          (static_cast<char32_t>(static_cast<unsigned char>(text[at + 1]) & 0x3F) << 6) |
          (static_cast<unsigned char>(text[at + 2]) & 0x3F);
      at += 3;
    } else {
      Utf8Step step = decodeUtf8(text, at);
      at += step.length;
      c = step.valid ? step.codePoint : 0xFFFD;
    }
    if (c >= 0x10000) {
      if (!masked(c)) return false;
      continue;
    }
    if (bmp.empty()) bmp.assign(0x10000, 0);
    uint8_t& known = bmp[c];
    if (known == 0) known = masked(c) ? 1 : 2;
    if (known == 2) return false;
  }
  return true;
}

TextPattern::TextPattern(const QueryValue& value)
    : caseInsensitive_(value.caseInsensitive),
      diacriticInsensitive_(value.diacriticInsensitive),
      wordBased_(value.wordBased) {
  const std::string& text = value.text;
  leadingStar_ = value.isWildcardAt(0);
  std::string literal;
  std::vector<std::string> raw;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (value.isWildcardAt(i)) {
      raw.push_back(std::move(literal));
      literal.clear();
    } else {
      literal.push_back(text[i]);
    }
  }
  raw.push_back(std::move(literal));
  // raw has (stars + 1) parts; the first and last are empty when the pattern
  // begins or ends with a star.
  for (auto& part : raw) segments_.push_back(foldText(part, caseInsensitive_, diacriticInsensitive_).text);

  // The longest literal part, lower-cased, is what every matching name holds.
  std::string longest;
  for (const auto& part : raw) {
    if (part.size() > longest.size()) longest = part;
  }
  FoldedText folded = foldText(longest, true, diacriticInsensitive_);
  required_ = folded.text;
  bool ascii = std::all_of(required_.begin(), required_.end(), [](char c) { return (c & 0x80) == 0; });
  // Folding never maps a character into an ideograph or out of one, so a
  // part made only of characters from U+3000 up is found as is in any text.
  requiredInAny_ = !required_.empty() && !ascii;
  for (std::size_t at = 0; requiredInAny_ && at < longest.size();) {
    Utf8Step step = decodeUtf8(longest, at);
    if (!step.valid || step.codePoint < 0x3000) requiredInAny_ = false;
    at += step.length;
  }
  if (!ascii && !requiredInAny_) required_.clear();
}

bool TextPattern::matches(std::string_view text) const { return matches(fold(text)); }

bool TextPattern::matches(const FoldedText& folded) const {
  if (leadingStar_) return matchesFrom(folded, 0);
  if (!wordBased_) return matchesFrom(folded, 0);
  const std::string& first = segments_.front();
  for (std::size_t at = 0; at < folded.text.size(); ++at) {
    if (!folded.wordStart[at]) continue;
    if (!first.empty() && folded.text.compare(at, first.size(), first) != 0) continue;
    if (matchesFrom(folded, at)) return true;
  }
  return folded.text.empty() && segments_.size() == 1 && first.empty();
}

bool TextPattern::matchesFrom(const FoldedText& folded, std::size_t start) const {
  const std::string& text = folded.text;
  std::size_t n = segments_.size();
  // The first part is anchored at `start` (empty when the pattern starts with a star).
  if (text.compare(start, segments_[0].size(), segments_[0]) != 0) return false;
  std::size_t at = start + segments_[0].size();
  auto endsWell = [&](std::size_t end) {
    if (end == text.size()) return true;
    return wordBased_ && folded.wordEnd[end];
  };
  if (n == 1) return endsWell(at);
  // Middle parts: earliest occurrence of each (the classic glob walk).
  for (std::size_t i = 1; i + 1 < n; ++i) {
    if (segments_[i].empty()) continue;
    std::size_t found = text.find(segments_[i], at);
    if (found == std::string::npos) return false;
    at = found + segments_[i].size();
  }
  const std::string& last = segments_[n - 1];
  if (last.empty()) return true;  // the pattern ends with a star
  for (std::size_t found = text.find(last, at); found != std::string::npos; found = text.find(last, found + 1)) {
    if (endsWell(found + last.size())) return true;
  }
  return false;
}

}  // namespace quorvi

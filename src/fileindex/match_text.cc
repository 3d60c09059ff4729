#include "fileindex/match_text.h"

#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <vector>

#include "pinyin/pinyin_mapper.h"

namespace quorvi {

namespace {

bool isAscii(std::string_view text) {
  for (unsigned char c : text) {
    if (c >= 0x80) return false;
  }
  return true;
}

void appendMember(std::string& out, std::vector<std::string_view>& seen, const std::string& member,
                  std::vector<std::string>& storage) {
  if (member.empty()) return;
  for (std::string_view existing : seen) {
    if (existing == member) return;
  }
  if (!out.empty()) out.push_back(' ');
  out += member;
  storage.push_back(member);
  seen.push_back(storage.back());
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  int32_t length = static_cast<int32_t>(text.size());
  for (int32_t i = 0; i < length;) {
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (c < 0) return false;
  }
  return true;
}

std::string sanitizedUtf8(std::string_view text) {
  if (isAscii(text) || isValidUtf8(text)) return std::string(text);
  std::string out;
  out.reserve(text.size() + 8);
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  int32_t length = static_cast<int32_t>(text.size());
  for (int32_t i = 0; i < length;) {
    int32_t start = i;
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (c < 0) {
      out += "\xEF\xBF\xBD";
    } else {
      out.append(text.data() + start, static_cast<std::size_t>(i - start));
    }
  }
  return out;
}

std::string lowercasedName(std::string_view text) {
  if (isAscii(text)) {
    std::string out(text);
    for (char& c : out) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    }
    return out;
  }
  std::string valid = sanitizedUtf8(text);
  UErrorCode status = U_ZERO_ERROR;
  std::vector<UChar> utf16(valid.size() + 1);
  int32_t utf16Length = 0;
  u_strFromUTF8(utf16.data(), static_cast<int32_t>(utf16.size()), &utf16Length, valid.data(),
                static_cast<int32_t>(valid.size()), &status);
  if (U_FAILURE(status)) return valid;
  // Lower case may grow a string (İ → i̇); give it room.
  std::vector<UChar> lower(static_cast<std::size_t>(utf16Length) * 3 + 4);
  status = U_ZERO_ERROR;
  int32_t lowerLength = u_strToLower(lower.data(), static_cast<int32_t>(lower.size()), utf16.data(),
                                     utf16Length, "", &status);
  if (U_FAILURE(status)) return valid;
  std::string out(static_cast<std::size_t>(lowerLength) * 3 + 4, '\0');
  int32_t outLength = 0;
  status = U_ZERO_ERROR;
  u_strToUTF8(out.data(), static_cast<int32_t>(out.size()), &outLength, lower.data(), lowerLength, &status);
  if (U_FAILURE(status)) return valid;
  out.resize(static_cast<std::size_t>(outLength));
  return out;
}

std::string matchTextOfName(std::string_view name) {
  std::string lower = lowercasedName(name);
  if (isAscii(name)) return lower;
  std::string valid = sanitizedUtf8(name);
  if (!PinyinMapper::containsChinese(valid)) return lower;
  PinyinForms forms = PinyinMapper::shared().map(valid);
  std::string out;
  std::vector<std::string> storage;
  storage.reserve(forms.fullPinyins.size() + forms.initials.size() + 1);
  std::vector<std::string_view> seen;
  appendMember(out, seen, lower, storage);
  for (const auto& full : forms.fullPinyins) appendMember(out, seen, full, storage);
  for (const auto& initials : forms.initials) appendMember(out, seen, initials, storage);
  return out;
}

}  // namespace quorvi

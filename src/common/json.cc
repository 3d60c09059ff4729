#include "common/json.h"

#include <array>

namespace quorvi {

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
}

std::string base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    unsigned v = (unsigned char)bytes[i] << 16 | (unsigned char)bytes[i + 1] << 8 | (unsigned char)bytes[i + 2];
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  if (std::size_t rest = bytes.size() - i) {
    unsigned v = (unsigned char)bytes[i] << 16 | (rest == 2 ? (unsigned char)bytes[i + 1] << 8 : 0);
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  std::array<int, 256> value;
  value.fill(-1);
  for (int i = 0; i < 64; ++i) value[(unsigned char)kAlphabet[i]] = i;
  if (text.size() % 4 != 0) return std::nullopt;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    int v[4];
    int padding = 0;
    for (int k = 0; k < 4; ++k) {
      unsigned char c = text[i + k];
      if (c == '=' && i + 4 == text.size() && k >= 2) {
        v[k] = 0;
        ++padding;
      } else if (padding || (v[k] = value[c]) < 0) {
        return std::nullopt;
      }
    }
    unsigned triple = v[0] << 18 | v[1] << 12 | v[2] << 6 | v[3];
    out += char(triple >> 16);
    if (padding < 2) out += char((triple >> 8) & 255);
    if (padding < 1) out += char(triple & 255);
  }
  return out;
}

OptionalBytes encodeJson(const Json& document) {
  try {
    return document.dump(-1, ' ', false, Json::error_handler_t::replace);
  } catch (...) {
    return std::nullopt;
  }
}

namespace {

// True when every sequence is well-formed UTF-8 (no overlong forms, no
// surrogates, nothing above U+10FFFF) and no byte needs a JSON escape.
bool isPlain(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    unsigned char c = *p;
    if (c < 0x80) {
      if (c < 0x20 || c == '"' || c == '\\') return false;
      ++p;
      continue;
    }
    int length;
    unsigned char low = 0x80, high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      if (c == 0xE0) low = 0xA0;
      if (c == 0xED) high = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      if (c == 0xF0) low = 0x90;
      if (c == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (end - p < length) return false;
    if (p[1] < low || p[1] > high) return false;
    for (int i = 2; i < length; ++i)
      if (p[i] < 0x80 || p[i] > 0xBF) return false;
    p += length;
  }
  return true;
}

}  // namespace

void appendJsonString(Bytes& out, std::string_view text) {
  if (isPlain(text)) {
    out += '"';
    out += text;
    out += '"';
    return;
  }
  // Escapes and replacement characters exactly as the library writes them.
  out += encodeJson(Json(std::string(text))).value_or("\"\"");
}

void appendJsonKey(Bytes& out, const char* key) {
  out += '"';
  out += key;
  out += "\":";
}

}  // namespace quorvi

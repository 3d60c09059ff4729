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

}  // namespace quorvi

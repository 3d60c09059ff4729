#include "spotlight/attribute_format.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace quorvi {

namespace {

const char* bytesWord(SupportedLanguage language, int64_t count) {
  switch (language) {
    case SupportedLanguage::chinese: return "字节";
    case SupportedLanguage::traditionChinese: return "位元組";
    case SupportedLanguage::english: break;
  }
  return count == 1 ? "byte" : "bytes";
}

// The value with at most `decimals` decimals, trailing zeros dropped.
std::string number(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  std::string out = text;
  if (out.find('.') != std::string::npos) {
    while (out.back() == '0') out.pop_back();
    if (out.back() == '.') out.pop_back();
  }
  return out;
}

}  // namespace

std::string formattedByteCount(int64_t bytes, SupportedLanguage language) {
  if (bytes < 1000) return std::to_string(bytes) + " " + bytesWord(language, bytes);
  static const char* kUnits[] = {"KB", "MB", "GB", "TB", "PB", "EB"};
  static const int kDecimals[] = {0, 1, 2, 2, 2, 2};
  double value = static_cast<double>(bytes) / 1000.0;
  int unit = 0;
  for (;;) {
    double scale = std::pow(10.0, kDecimals[unit]);
    double rounded = std::round(value * scale) / scale;
    if (rounded < 1000.0 || unit == 5) return number(rounded, kDecimals[unit]) + " " + kUnits[unit];
    value /= 1000.0;
    ++unit;
  }
}

std::optional<std::string> attributeSize(std::optional<int64_t> bytes, SupportedLanguage language) {
  if (!bytes || *bytes < 2) return std::nullopt;
  return formattedByteCount(*bytes, language);
}

std::string attributeDate(std::optional<double> secondsSince1970) {
  if (!secondsSince1970 || !std::isfinite(*secondsSince1970)) return "--";
  std::time_t t = static_cast<std::time_t>(std::floor(*secondsSince1970));
  std::tm local{};
  if (!localtime_r(&t, &local)) return "--";
  char text[32];
  std::strftime(text, sizeof text, "%Y/%m/%d %H:%M", &local);
  return text;
}

}  // namespace quorvi

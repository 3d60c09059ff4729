#include "pinyin/polyphone_table.h"


#include <nlohmann/json.hpp>

#include "pinyin/utf8_text.h"
#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

// The one Chinese code point a key must consist of, or 0.
char32_t singleChineseCodePoint(const std::string& key) {
  if (key.empty()) return 0;
  Utf8Step step = decodeUtf8(key, 0);
  if (!step.valid || step.length != key.size() || !isChineseCodePoint(step.codePoint)) return 0;
  return step.codePoint;
}

// A reading in lower-case ASCII letters, or "" when it is not one.
std::string normalizedReading(const nlohmann::json& value) {
  if (!value.is_string()) return {};
  std::string reading = value.get<std::string>();
  if (reading.empty()) return {};
  for (auto& c : reading) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    if (c < 'a' || c > 'z') return {};
  }
  return reading;
}

PolyphoneTableReading rejected(std::string why) {
  PolyphoneTableReading reading;
  reading.error = std::move(why);
  return reading;
}

}  // namespace

PolyphoneTableReading parsePolyphoneTable(std::string_view text) {
  nlohmann::json document = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (document.is_discarded()) return rejected("not JSON");
  if (!document.is_object()) return rejected("not a JSON object");
  PolyphoneTable table;
  table.reserve(document.size());
  for (const auto& [key, value] : document.items()) {
    char32_t character = singleChineseCodePoint(key);
    if (character == 0) return rejected("key is not one Chinese character: " + key);
    if (!value.is_array() || value.empty()) return rejected("readings of " + key + " are not a list");
    std::vector<std::string> readings;
    for (const auto& element : value) {
      std::string reading = normalizedReading(element);
      if (reading.empty()) return rejected("a reading of " + key + " is not ASCII letters");
      readings.push_back(std::move(reading));
    }
    table[character] = std::move(readings);
  }
  return PolyphoneTableReading{std::move(table), {}};
}

PolyphoneTableReading readPolyphoneTable(const std::string& path) {
  SafeFileFailure failure = SafeFileFailure::none;
  auto text = readRegularFile(path, kResourceFileCap, &failure);
  if (!text) return rejected("cannot read " + path + ": " + describe(failure));
  return parsePolyphoneTable(*text);
}

std::string defaultPolyphoneTablePath() {
  return resourceDirectory() + "/pinyin/PinyinDuoyinzi.json";
}

}  // namespace quorvi

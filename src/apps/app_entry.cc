#include "apps/app_entry.h"

#include <algorithm>
#include <functional>

#include "pinyin/pinyin_mapper.h"
#include "pinyin/utf8_text.h"

namespace quorvi {

namespace {

void addOnce(std::vector<std::string>& matchs, std::string text) {
  if (text.empty() || std::find(matchs.begin(), matchs.end(), text) != matchs.end()) return;
  matchs.push_back(std::move(text));
}

std::string withoutSeparators(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c != ' ' && c != '-' && c != '_' && c != '.' && c != '\t') out += c;
  }
  return out;
}

// Adds the forms of one text; true when it held Chinese.
bool addForms(std::vector<std::string>& matchs, std::string_view text) {
  if (text.empty()) return false;
  std::string lower = lowercased(text);
  addOnce(matchs, std::string(text));
  addOnce(matchs, lower);
  addOnce(matchs, withoutSeparators(lower));
  if (!PinyinMapper::containsChinese(text)) return false;
  PinyinForms forms = PinyinMapper::shared().map(text);
  for (auto& form : forms.fullPinyins) addOnce(matchs, std::move(form));
  for (auto& form : forms.initials) addOnce(matchs, std::move(form));
  return true;
}

template <typename T>
void combineHash(std::size_t& seed, const T& value) {
  seed ^= std::hash<T>()(value) + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2);
}

}  // namespace

std::vector<FuseProperty> AppEntry::properties() const {
  std::vector<FuseProperty> list;
  list.reserve(matchs.size());
  for (const auto& match : matchs) list.emplace_back(match, 1.0);
  return list;
}

bool AppEntry::operator==(const AppEntry& other) const {
  return path == other.path && bundleIdentifier == other.bundleIdentifier && category == other.category &&
         nameOfDisplay == other.nameOfDisplay && hasPinyin == other.hasPinyin && matchs == other.matchs &&
         timestampOfLastUsed == other.timestampOfLastUsed && fmatchs == other.fmatchs &&
         urlSchemes == other.urlSchemes;
}

std::size_t AppEntryHash::operator()(const AppEntry& entry) const {
  std::size_t seed = 0;
  combineHash(seed, entry.path);
  combineHash(seed, entry.bundleIdentifier);
  combineHash(seed, static_cast<int>(entry.category));
  combineHash(seed, entry.nameOfDisplay);
  combineHash(seed, entry.hasPinyin);
  for (const auto& match : entry.matchs) combineHash(seed, match);
  combineHash(seed, entry.timestampOfLastUsed);
  combineHash(seed, entry.fmatchs);
  combineHash(seed, entry.urlSchemes.has_value());
  if (entry.urlSchemes) {
    for (const auto& scheme : *entry.urlSchemes) combineHash(seed, scheme);
  }
  return seed;
}

Json AppEntry::toJson() const {
  Json json = Json::object();
  json["path"] = path;
  json["bundleIdentifier"] = bundleIdentifier;
  json["category"] = static_cast<int>(category);
  json["nameOfDisplay"] = nameOfDisplay;
  json["hasPinyin"] = hasPinyin;
  json["matchs"] = matchs;
  json["timestampOfLastUsed"] = timestampOfLastUsed;
  json["fmatchs"] = fmatchs;
  if (urlSchemes) json["urlSchemes"] = *urlSchemes;
  return json;
}

std::optional<AppEntry> AppEntry::fromJson(const Json& json) {
  try {
    if (!json.is_object()) return std::nullopt;
    AppEntry entry;
    entry.path = json.at("path").get<std::string>();
    entry.bundleIdentifier = json.at("bundleIdentifier").get<std::string>();
    int category = json.at("category").get<int>();
    if (category < 0 || category > 2) return std::nullopt;
    entry.category = static_cast<AppCategory>(category);
    entry.nameOfDisplay = json.at("nameOfDisplay").get<std::string>();
    entry.hasPinyin = json.at("hasPinyin").get<bool>();
    entry.matchs = json.at("matchs").get<std::vector<std::string>>();
    entry.timestampOfLastUsed = json.at("timestampOfLastUsed").get<double>();
    entry.fmatchs = json.at("fmatchs").get<std::string>();
    if (json.contains("urlSchemes")) entry.urlSchemes = json.at("urlSchemes").get<std::vector<std::string>>();
    return entry;
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

AppEntry makeAppEntry(std::string path, std::string bundleIdentifier, AppCategory category,
                      std::string nameOfDisplay, const std::vector<std::string>& otherNames,
                      double timestampOfLastUsed, std::optional<std::vector<std::string>> urlSchemes) {
  AppEntry entry;
  entry.path = std::move(path);
  entry.bundleIdentifier = std::move(bundleIdentifier);
  entry.category = category;
  entry.nameOfDisplay = std::move(nameOfDisplay);
  entry.hasPinyin = addForms(entry.matchs, entry.nameOfDisplay);
  for (const auto& name : otherNames) addForms(entry.matchs, name);
  for (const auto& match : entry.matchs) entry.fmatchs += (entry.fmatchs.empty() ? "" : " ") + match;
  entry.timestampOfLastUsed = timestampOfLastUsed;
  entry.urlSchemes = std::move(urlSchemes);
  return entry;
}

OptionalBytes encodeAppEntries(const std::vector<AppEntry>& entries) {
  Json array = Json::array();
  for (const auto& entry : entries) array.push_back(entry.toJson());
  return encodeJson(array);
}

}  // namespace quorvi

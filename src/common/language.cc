#include "common/language.h"

#include <cstdlib>
#include <sstream>

#include "common/json.h"
#include "common/settings.h"
#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

const char* rawValue(SupportedLanguage language) {
  switch (language) {
    case SupportedLanguage::english: return "en";
    case SupportedLanguage::chinese: return "zh-Hans";
    case SupportedLanguage::traditionChinese: return "zh-Hant";
  }
  return "en";
}

namespace {

bool loadTable(const std::string& path, std::map<std::string, std::string>& table) {
  auto text = readRegularFile(path, kResourceFileCap);
  if (!text) return false;
  Json json = Json::parse(*text, nullptr, false);
  if (!json.is_object()) return false;
  for (auto& [key, value] : json.items()) {
    if (value.is_string()) table[key] = value.get<std::string>();
  }
  return true;
}

}  // namespace

Language& Language::shared() {
  static auto* language =
      new Language(Settings::shared(), systemLanguagesFromEnvironment(), resourceDirectory());
  return *language;
}

SupportedLanguage Language::choose(const Settings& settings, const std::vector<std::string>& systemLanguages) {
  if (auto stored = settings.stringValue(Settings::kPreferredLanguageKey)) {
    if (*stored == "zh-Hans") return SupportedLanguage::chinese;
    if (*stored == "zh-Hant") return SupportedLanguage::traditionChinese;
    return SupportedLanguage::english;
  }
  std::string first = systemLanguages.empty() ? "" : systemLanguages.front();
  if (first.starts_with("zh-Hans")) return SupportedLanguage::chinese;
  if (first.starts_with("zh-Hant")) return SupportedLanguage::traditionChinese;
  return SupportedLanguage::english;
}

Language::Language(const Settings& settings, const std::vector<std::string>& systemLanguages,
                   const std::string& resourceDirectory)
    : preferredLanguage_(choose(settings, systemLanguages)) {
  const std::string folder = resourceDirectory + "/localization/";
  tableName_ = rawValue(preferredLanguage_);
  if (!loadTable(folder + tableName_ + ".json", table_)) {
    tableName_ = "en";
    loadTable(folder + "en.json", table_);
  }
}

std::string Language::localizedString(const std::string& key) const {
  auto it = table_.find(key);
  return it == table_.end() ? key : it->second;
}

std::string Language::languageTagFromLocale(const std::string& locale) {
  std::string name = locale.substr(0, locale.find_first_of(".@"));
  if (name.empty() || name == "C" || name == "POSIX") return "en";
  std::string language = name.substr(0, name.find('_'));
  std::string region = name.find('_') == std::string::npos ? "" : name.substr(name.find('_') + 1);
  if (language == "zh") {
    if (region == "CN" || region == "SG") return "zh-Hans-" + region;
    if (region == "TW") return "zh-Hant-TW";
  }
  return region.empty() ? language : language + "-" + region;
}

std::vector<std::string> Language::systemLanguagesFromEnvironment() {
  std::vector<std::string> languages;
  auto env = [](const char* name) -> std::string {
    const char* value = std::getenv(name);
    return value ? value : "";
  };
  // LANGUAGE is a colon-separated priority list; it only counts beside a real locale.
  std::string list = env("LANGUAGE");
  std::string locale = env("LC_ALL");
  if (locale.empty()) locale = env("LC_MESSAGES");
  if (locale.empty()) locale = env("LANG");
  if (!list.empty() && locale != "C" && locale != "POSIX") {
    std::stringstream stream(list);
    for (std::string item; std::getline(stream, item, ':');) {
      if (!item.empty()) languages.push_back(languageTagFromLocale(item));
    }
  }
  if (!locale.empty()) languages.push_back(languageTagFromLocale(locale));
  return languages;
}

}  // namespace quorvi

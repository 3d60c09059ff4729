// Language: the user's preferred interface language and its localisation
// table, used for every localised text (error messages, category labels).
//
// The choice: the settings key "com.quorvi.preferredLanguage" when present
// ("zh-Hans" → chinese, "zh-Hant" → traditionChinese, anything else →
// english); otherwise the first system language (from LANGUAGE, LC_ALL,
// LC_MESSAGES, LANG, written the way BCP 47 writes them, see
// systemLanguagesFromEnvironment) beginning with "zh-Hans" or "zh-Hant";
// otherwise english. Tables are JSON objects of key → text in
// <resources>/localization/<raw value>.json; a missing table leaves the main
// table (English) in use, and a key without entry answers as the key itself.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace quorvi {

class Settings;

enum class SupportedLanguage { english, chinese, traditionChinese };
const char* rawValue(SupportedLanguage language);

class Language {
 public:
  // The process-wide language, made on first use from the shared settings,
  // the environment and the installed resources.
  static Language& shared();

  Language(const Settings& settings, const std::vector<std::string>& systemLanguages,
           const std::string& resourceDirectory);

  SupportedLanguage preferredLanguage() const { return preferredLanguage_; }
  // The table's text for the key, or the key itself.
  std::string localizedString(const std::string& key) const;
  // Which table is in use: the language's own, or "en" (the main table).
  const std::string& tableName() const { return tableName_; }

  static SupportedLanguage choose(const Settings& settings, const std::vector<std::string>& systemLanguages);
  // POSIX locale names turned into language tags: zh_CN.UTF-8 → zh-Hans-CN,
  // zh_SG → zh-Hans-SG, zh_TW → zh-Hant-TW, other zh_XX → zh-XX, en_US → en-US,
  // C and POSIX → en.
  static std::vector<std::string> systemLanguagesFromEnvironment();
  static std::string languageTagFromLocale(const std::string& locale);

 private:
  SupportedLanguage preferredLanguage_ = SupportedLanguage::english;
  std::string tableName_;
  std::map<std::string, std::string> table_;
};

}  // namespace quorvi

#include "common/language.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/settings.h"

namespace quorvi {
namespace {

namespace fs = std::filesystem;

class LanguageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "quorvi-language-XXXXXX").string();
    dir_ = ::mkdtemp(pattern.data());
    fs::create_directories(dir_ + "/res/localization");
    std::ofstream(dir_ + "/res/localization/en.json") << R"({"ERROR_NO_RESULT": "No result."})";
    std::ofstream(dir_ + "/res/localization/zh-Hans.json") << R"({"ERROR_NO_RESULT": "没有结果。"})";
  }
  void TearDown() override { fs::remove_all(dir_); }
  Settings settings() { return Settings(dir_ + "/settings.json"); }
  std::string resources() { return dir_ + "/res"; }
  std::string dir_;
};

TEST_F(LanguageTest, StoredPreferenceWinsOverTheSystemLanguage) {
  Settings s = settings();
  ASSERT_TRUE(s.set(Settings::kPreferredLanguageKey, "zh-Hant"));
  EXPECT_EQ(Language::choose(s, {"en-US"}), SupportedLanguage::traditionChinese);
  s.set(Settings::kPreferredLanguageKey, "zh-Hans");
  EXPECT_EQ(Language::choose(s, {"en-US"}), SupportedLanguage::chinese);
  s.set(Settings::kPreferredLanguageKey, "fr");
  EXPECT_EQ(Language::choose(s, {"zh-Hans-CN"}), SupportedLanguage::english);
}

TEST_F(LanguageTest, SystemLanguageDecidesWithoutAPreference) {
  Settings s = settings();
  EXPECT_EQ(Language::choose(s, {"zh-Hans-CN", "en"}), SupportedLanguage::chinese);
  EXPECT_EQ(Language::choose(s, {"zh-Hant-TW"}), SupportedLanguage::traditionChinese);
  EXPECT_EQ(Language::choose(s, {"zh-HK"}), SupportedLanguage::english);  // begins with neither prefix
  EXPECT_EQ(Language::choose(s, {"en", "zh-Hans-CN"}), SupportedLanguage::english);
  EXPECT_EQ(Language::choose(s, {}), SupportedLanguage::english);
}

TEST_F(LanguageTest, LocaleNamesBecomeLanguageTags) {
  EXPECT_EQ(Language::languageTagFromLocale("zh_CN.UTF-8"), "zh-Hans-CN");
  EXPECT_EQ(Language::languageTagFromLocale("zh_SG"), "zh-Hans-SG");
  EXPECT_EQ(Language::languageTagFromLocale("zh_TW.UTF-8@stroke"), "zh-Hant-TW");
  EXPECT_EQ(Language::languageTagFromLocale("zh_HK.UTF-8"), "zh-HK");
  EXPECT_EQ(Language::languageTagFromLocale("en_US.UTF-8"), "en-US");
  EXPECT_EQ(Language::languageTagFromLocale("C.UTF-8"), "en");
  EXPECT_EQ(Language::languageTagFromLocale("POSIX"), "en");
}

TEST_F(LanguageTest, TablesFallBackToTheMainTableAndThenToTheKey) {
  Settings s = settings();
  Language chinese(s, {"zh-Hans-CN"}, resources());
  EXPECT_EQ(chinese.localizedString("ERROR_NO_RESULT"), "没有结果。");
  EXPECT_EQ(chinese.localizedString("ERROR_NOT_IN_ANY_TABLE"), "ERROR_NOT_IN_ANY_TABLE");

  // No zh-Hant table: the main (English) table stays in use.
  Language traditional(s, {"zh-Hant-TW"}, resources());
  EXPECT_EQ(traditional.preferredLanguage(), SupportedLanguage::traditionChinese);
  EXPECT_EQ(traditional.tableName(), "en");
  EXPECT_EQ(traditional.localizedString("ERROR_NO_RESULT"), "No result.");
}

TEST_F(LanguageTest, ShippedTablesTranslateEveryKeyOfTheEnglishTable) {
  std::string shipped = std::string(std::getenv("QUORVI_SOURCE_DIR") ? std::getenv("QUORVI_SOURCE_DIR") : ".") +
                        "/resources";
  Settings s = settings();
  Language english(s, {"en"}, shipped);
  s.set(Settings::kPreferredLanguageKey, "zh-Hans");
  Language hans(s, {}, shipped);
  s.set(Settings::kPreferredLanguageKey, "zh-Hant");
  Language hant(s, {}, shipped);
  ASSERT_EQ(hans.tableName(), "zh-Hans");
  ASSERT_EQ(hant.tableName(), "zh-Hant");
  for (const char* key : {"ERROR_UNKNOW", "ERROR_NO_RESULT", "ERROR_REQUES_INVALID", "颜色"}) {
    EXPECT_NE(english.localizedString(key), key);
    EXPECT_NE(hans.localizedString(key), english.localizedString(key)) << key;
    EXPECT_NE(hant.localizedString(key), english.localizedString(key)) << key;
  }
}

TEST_F(LanguageTest, SettingsSurviveADamagedFileAndKeepOtherKeys) {
  std::ofstream(dir_ + "/settings.json") << "{ not json";
  Settings s = settings();
  EXPECT_FALSE(s.stringValue(Settings::kPreferredLanguageKey));
  ASSERT_TRUE(s.set("a", 1));
  ASSERT_TRUE(s.set("b", "two"));
  EXPECT_EQ(s.value("a"), Json(1));
  EXPECT_EQ(s.stringValue("b"), "two");
}

}  // namespace
}  // namespace quorvi

// The app entry record: match strings, JSON, equality, matcher properties.
#include <gtest/gtest.h>

#include <algorithm>
#include <unordered_set>

#include "apps/app_entry.h"
#include "fuse/fuse.h"

namespace quorvi {
namespace {

bool contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

TEST(AppEntry, MatchStringsFromTheNameAndOtherNames) {
  AppEntry editor = makeAppEntry("/a/editor.desktop", "editor.desktop", AppCategory::application, "Text Editor",
                                 {"Editor", "text", "Text Editor"}, 12.5, std::nullopt);
  EXPECT_EQ(editor.matchs, (std::vector<std::string>{"Text Editor", "text editor", "texteditor", "Editor", "editor", "text"}));
  EXPECT_EQ(editor.fmatchs, "Text Editor text editor texteditor Editor editor text");
  EXPECT_FALSE(editor.hasPinyin);
  EXPECT_EQ(makeAppEntry("/p", "id", AppCategory::application, "GNU_Image-Manip.Prog").matchs,
            (std::vector<std::string>{"GNU_Image-Manip.Prog", "gnu_image-manip.prog", "gnuimagemanipprog"}));
  EXPECT_EQ(makeAppEntry("/p", "id", AppCategory::application, "Écran").matchs[1], "écran");

  AppEntry chinese = makeAppEntry("/a/wx.desktop", "wx.desktop", AppCategory::application, "微信", {"聊天"});
  EXPECT_TRUE(chinese.hasPinyin);
  EXPECT_TRUE(contains(chinese.matchs, "weixin"));
  EXPECT_TRUE(contains(chinese.matchs, "wx"));
  EXPECT_TRUE(contains(chinese.matchs, "liaotian"));  // other names get pinyin too
  // Chinese only in another name does not make the entry's name pinyin-matched.
  EXPECT_FALSE(makeAppEntry("/p", "id", AppCategory::application, "Chat", {"聊天"}).hasPinyin);
}

TEST(AppEntry, JsonKeysInOrderAndSchemesOnlyWhenDeclared) {
  AppEntry entry = makeAppEntry("/Applications/Mail.app", "com.example.mail", AppCategory::venturaSettingsExtension,
                                "Mail", {}, 1700000000.5, std::vector<std::string>{"mailto", "message"});
  Json json = entry.toJson();
  std::vector<std::string> keys;
  for (const auto& [key, value] : json.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"path", "bundleIdentifier", "category", "nameOfDisplay", "hasPinyin",
                                            "matchs", "timestampOfLastUsed", "fmatchs", "urlSchemes"}));
  EXPECT_EQ(json["category"], 1);
  EXPECT_EQ(json["timestampOfLastUsed"], 1700000000.5);
  EXPECT_EQ(json["urlSchemes"], Json::array({"mailto", "message"}));
  entry.urlSchemes.reset();
  EXPECT_FALSE(entry.toJson().contains("urlSchemes"));
  entry.urlSchemes = std::vector<std::string>{};  // declared but empty is still declared
  EXPECT_TRUE(entry.toJson().contains("urlSchemes"));

  auto bytes = encodeAppEntries({entry, makeAppEntry("/b", "b", AppCategory::xcodeSimulator, "B")});
  ASSERT_TRUE(bytes);
  Json array = Json::parse(*bytes);
  ASSERT_EQ(array.size(), 2u);
  EXPECT_EQ(AppEntry::fromJson(array[0]), entry);
  EXPECT_EQ(array[1]["category"], 2);
  EXPECT_FALSE(AppEntry::fromJson(Json::parse(R"({"path":"/x"})")));
  EXPECT_FALSE(AppEntry::fromJson(Json::parse(R"([1,2])")));
  EXPECT_EQ(*encodeAppEntries({}), "[]");
}

TEST(AppEntry, EqualAndHashedByContents) {
  AppEntry a = makeAppEntry("/a", "id", AppCategory::application, "A");
  AppEntry b = makeAppEntry("/a", "id", AppCategory::application, "A");
  EXPECT_EQ(a, b);
  EXPECT_EQ(AppEntryHash()(a), AppEntryHash()(b));
  std::unordered_set<AppEntry, AppEntryHash> set = {a, b};
  EXPECT_EQ(set.size(), 1u);
  for (auto change : std::vector<std::function<void(AppEntry&)>>{
           [](AppEntry& e) { e.path = "/b"; }, [](AppEntry& e) { e.category = AppCategory::xcodeSimulator; },
           [](AppEntry& e) { e.timestampOfLastUsed = 1; }, [](AppEntry& e) { e.urlSchemes = std::vector<std::string>{}; },
           [](AppEntry& e) { e.matchs.push_back("x"); }}) {
    AppEntry changed = a;
    change(changed);
    EXPECT_NE(changed, a);
    set.insert(changed);
  }
  EXPECT_EQ(set.size(), 6u);
}

TEST(AppEntry, TheMatcherSearchesEachMatchString) {
  AppEntry entry = makeAppEntry("/a", "id", AppCategory::application, "Web Browser", {"internet"});
  auto properties = entry.properties();
  ASSERT_EQ(properties.size(), entry.matchs.size());
  for (std::size_t i = 0; i < properties.size(); ++i) {
    EXPECT_EQ(properties[i].name, entry.matchs[i]);
    EXPECT_EQ(properties[i].weight, 1.0);
  }
  Fuse fuse(0, 100, 0.4, 32, false, false);
  std::vector<FuseableRef> items = {std::make_shared<AppEntry>(entry),
                                    std::make_shared<AppEntry>(makeAppEntry("/b", "b", AppCategory::application, "Calculator"))};
  auto results = fuse.search("browsr", items);
  ASSERT_EQ(results.size(), 1u);
  EXPECT_EQ(results[0].index, 0);
}

}  // namespace
}  // namespace quorvi

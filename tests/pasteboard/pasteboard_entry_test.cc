#include "pasteboard/pasteboard_entry.h"

#include <gtest/gtest.h>

#include "common/language.h"
#include "pasteboard/pasteboard_writers.h"

namespace quorvi {
namespace {

PasteboardEntry sampleEntry() {
  PasteboardEntry e;
  e.uuid = "6F1C";
  e.isPin = true;
  e.firstCopiedAt = 700000000.5;
  e.lastCopiedAt = 700000100.25;
  e.numberOfCopies = 3;
  e.lastModifiedTimestamp = 1700000000;
  e.appBundleIdentifier = "org.gnome.TextEditor";
  e.title = "报告";
  e.text = "hello";
  e.size = 5;
  e.imageSize = PasteboardEntry::ImageSize{640, 480};
  e.category = PasteboardEntry::Category::image;
  e.textCount = 5;
  e.groupURLs = std::vector<std::string>{"file:///a", "file:///b"};
  e.queryKeyword = "hel";
  return e;
}

TEST(PasteboardEntryTest, KeysInTheirFixedOrderWithDateKeysRenamed) {
  Json json = sampleEntry().toJson();
  std::vector<std::string> keys;
  for (auto& [key, value] : json.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"uuid", "appBundleIdentifier", "isPin", "firstCopiedDate",
                                            "lastCopiedDate", "numberOfCopies", "category", "title", "text", "size",
                                            "isLargeText", "isFromAppleRemoteClipboard", "didPasteByQuorvi",
                                            "isUnknownType", "groupURLs", "queryKeyword", "imageSize", "textCount",
                                            "lastModifiedTimestamp"}));
  EXPECT_FALSE(json.contains("firstCopiedAt"));
  EXPECT_EQ(json["imageSize"], Json::array({640.0, 480.0}));
}

TEST(PasteboardEntryTest, RoundTripsAndRejectsTheFieldNamesAsKeys) {
  PasteboardEntry e = sampleEntry();
  EXPECT_EQ(PasteboardEntry::fromJson(Json::parse(e.toJson().dump())), e);
  PasteboardEntry minimal;
  minimal.uuid = "x";
  EXPECT_EQ(PasteboardEntry::fromJson(minimal.toJson()), minimal);

  Json renamed = e.toJson();
  renamed["firstCopiedAt"] = renamed["firstCopiedDate"];
  renamed.erase("firstCopiedDate");
  EXPECT_FALSE(PasteboardEntry::fromJson(renamed));
  Json badCategory = e.toJson();
  badCategory["category"] = "sound";
  EXPECT_FALSE(PasteboardEntry::fromJson(badCategory));
}

TEST(PasteboardEntryTest, OnlyColorIsLocalisedHere) {
  EXPECT_EQ(description(PasteboardEntry::Category::file), "clipboard.previewMetaData.contentType.file");
  EXPECT_EQ(description(PasteboardEntry::Category::image), "clipboard.previewMetaData.contentType.image");
  EXPECT_EQ(description(PasteboardEntry::Category::color), Language::shared().localizedString("颜色"));
}

TEST(PasteboardWritersTest, EachAnswersItsOneTypeOnly) {
  SnippetTextPartionPasteboardWriting snippet("parts");
  EXPECT_EQ(snippet.writableTypesForPasteboard(), (std::vector<std::string>{"com.quorvi.snippet.textPartions"}));
  EXPECT_EQ(snippet.pasteboardPropertyListForType("com.quorvi.snippet.textPartions"), "parts");
  EXPECT_EQ(snippet.pasteboardPropertyListForType("public.utf8-plain-text"), std::nullopt);
  IgnorablePasteboardWriting ignorable("text");
  EXPECT_EQ(ignorable.writableTypesForPasteboard(), (std::vector<std::string>{"com.quorvi.ignore"}));
  EXPECT_EQ(ignorable.pasteboardPropertyListForType("com.quorvi.ignore"), "text");
  EXPECT_EQ(ignorable.pasteboardPropertyListForType("text/plain"), std::nullopt);
}

}  // namespace
}  // namespace quorvi

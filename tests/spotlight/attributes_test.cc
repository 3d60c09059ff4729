// Attribute records of files and applications: sizes, dates and "--", in
// English and Chinese.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <regex>

#include "recent/recent_files.h"
#include "spotlight/attribute_format.h"
#include "spotlight/attributes_reader.h"
#include "contentindex/document_maker.h"
#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

void setTimes(const std::string& path, time_t access, time_t modification) {
  timespec times[2] = {{access, 0}, {modification, 0}};
  ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

TEST(AttributeFormatTest, ByteCountsInDecimalFileStyle) {
  const std::vector<std::pair<int64_t, const char*>> english = {
      {0, "0 bytes"},        {1, "1 byte"},           {2, "2 bytes"},         {999, "999 bytes"},
      {1000, "1 KB"},        {1499, "1 KB"},          {1500, "2 KB"},         {999499, "999 KB"},
      {999500, "1 MB"},      {1500000, "1.5 MB"},     {1049999, "1 MB"},      {12345678, "12.3 MB"},
      {999999999, "1 GB"},   {2250000000, "2.25 GB"}, {1e12, "1 TB"},         {3456789012345, "3.46 TB"},
  };
  for (const auto& [bytes, text] : english) EXPECT_EQ(formattedByteCount(bytes, SupportedLanguage::english), text) << bytes;
  EXPECT_EQ(formattedByteCount(2, SupportedLanguage::chinese), "2 字节");
  EXPECT_EQ(formattedByteCount(2, SupportedLanguage::traditionChinese), "2 位元組");
  EXPECT_EQ(formattedByteCount(1500000, SupportedLanguage::chinese), "1.5 MB");
  // The records leave sizes below 2 bytes out.
  EXPECT_FALSE(attributeSize(1, SupportedLanguage::english));
  EXPECT_FALSE(attributeSize(0, SupportedLanguage::chinese));
  EXPECT_FALSE(attributeSize(std::nullopt, SupportedLanguage::english));
  EXPECT_EQ(attributeSize(2, SupportedLanguage::english), "2 bytes");
}

TEST(AttributeFormatTest, DatesInLocalTimeOrDashes) {
  EXPECT_EQ(attributeDate(1700000000.9), "2023/11/14 22:13");  // the tests run in UTC
  EXPECT_EQ(attributeDate(0), "1970/01/01 00:00");
  EXPECT_EQ(attributeDate(std::nullopt), "--");
  EXPECT_EQ(attributeDate(std::numeric_limits<double>::quiet_NaN()), "--");
}

class AttributesTest : public ::testing::Test {
 protected:
  AttributeEnvironment environment(SupportedLanguage language) {
    AttributeEnvironment environment;
    environment.homeDirectory = dir_.path() + "/home";
    environment.language = language;
    environment.dpkgDirectory = dir_.path() + "/dpkg";
    return environment;
  }
  TemporaryDirectory dir_;
};

TEST_F(AttributesTest, FileRecordInBothLanguages) {
  std::string pdf = dir_.write("home/paper.pdf", makePdf({"hello"}));
  setTimes(pdf, 1700000000, 1600000000);
  auto english = FileAttributesReader(environment(SupportedLanguage::english)).read(pdf);
  auto chinese = FileAttributesReader(environment(SupportedLanguage::chinese)).read(pdf);
  ASSERT_TRUE(english && chinese);
  EXPECT_EQ(english->contentType, "PDF document");
  EXPECT_EQ(chinese->contentType, "PDF 文档");
  EXPECT_EQ(english->size, formattedByteCount(static_cast<int64_t>(makePdf({"hello"}).size()), SupportedLanguage::english));
  EXPECT_EQ(english->contentChangeDate, "2020/09/13 12:26");
  EXPECT_EQ(chinese->contentChangeDate, english->contentChangeDate);
  // The access time stands for the last use where the mount records it.
  EXPECT_TRUE(english->contentLastUsedDate == "2023/11/14 22:13" || english->contentLastUsedDate == "--");
  EXPECT_TRUE(english->creationDate == "--" || std::regex_match(english->creationDate, std::regex(R"(\d{4}/\d\d/\d\d \d\d:\d\d)")));
  Json json = english->toJson();
  std::vector<std::string> keys;
  for (auto& [key, value] : json.items()) keys.push_back(key);
  EXPECT_EQ(keys, std::vector<std::string>({"path", "contentType", "size", "creationDate", "contentChangeDate",
                                            "contentLastUsedDate", "cacheTimestamp"}));
}

TEST_F(AttributesTest, TinyFilesHaveNoSizeAndFoldersAreFolders) {
  std::string one = dir_.write("home/one.txt", "x");
  std::string two = dir_.write("home/two.txt", "xy");
  auto reader = FileAttributesReader(environment(SupportedLanguage::english));
  EXPECT_FALSE(reader.read(one)->size);
  EXPECT_FALSE(reader.read(one)->toJson().contains("size"));
  EXPECT_EQ(reader.read(two)->size, "2 bytes");
  EXPECT_EQ(FileAttributesReader(environment(SupportedLanguage::chinese)).read(two)->size, "2 字节");
  EXPECT_EQ(reader.read(two)->contentType, "plain text document");
  auto folder = reader.read(dir_.path() + "/home");
  ASSERT_TRUE(folder);
  EXPECT_EQ(folder->contentType, "folder");
  EXPECT_FALSE(folder->size);
  EXPECT_EQ(FileAttributesReader(environment(SupportedLanguage::chinese)).read(dir_.path() + "/home")->contentType, "文件夹");
  // Kind by content when the name says nothing.
  EXPECT_EQ(reader.read(dir_.write("home/jottings", "just words\n"))->contentType, "plain text document");
}

TEST_F(AttributesTest, OneDriveFilesAreReadFromTheFileSystemOnly) {
  std::string file = dir_.write("home/OneDrive/report.txt", "some text");
  RecentFiles recent(dir_.path() + "/none.xbel");
  AttributeEnvironment env = environment(SupportedLanguage::english);
  env.recent = &recent;
  auto attributes = FileAttributesReader(env).read(file);
  ASSERT_TRUE(attributes);
  EXPECT_FALSE(attributes->size);
  EXPECT_EQ(attributes->contentLastUsedDate, "--");
  EXPECT_NE(attributes->contentChangeDate, "--");
  EXPECT_EQ(attributes->contentType, "plain text document");
  // A neighbour whose name only begins the same is not inside it.
  std::string beside = dir_.write("home/OneDriveX/report.txt", "some text");
  EXPECT_TRUE(FileAttributesReader(env).read(beside)->size);
}

TEST_F(AttributesTest, WhatCannotBeReadIsNil) {
  auto reader = FileAttributesReader(environment(SupportedLanguage::english));
  EXPECT_FALSE(reader.read(""));
  EXPECT_FALSE(reader.read("relative/path.txt"));
  EXPECT_FALSE(reader.read(dir_.path() + "/missing"));
  std::string fifo = dir_.path() + "/pipe.txt";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  auto pipe = reader.read(fifo);  // described, never opened for reading
  ASSERT_TRUE(pipe);
  EXPECT_NE(pipe->contentType, "");
  EXPECT_FALSE(AppAttributesReader(environment(SupportedLanguage::english)).read(dir_.path() + "/missing.desktop"));
}

TEST_F(AttributesTest, DesktopEntryOfAPackage) {
  std::string program = dir_.write("bin/editor", std::string(3000, 'x'), true);
  // Read before it was installed (changed): never used since.
  setTimes(program, 1500000000, 1500000000);
  std::string entry = dir_.write("share/applications/org.example.Editor.desktop",
                                 "[Desktop Entry]\nType=Application\nName=Editor\nExec=" + program +
                                     " %F\nCategories=GTK;IDE;Development;\n");
  dir_.write("dpkg/info/example-editor:amd64.list", "/.\n/usr\n" + entry + "\n");
  dir_.write("dpkg/status",
             "Package: other\nStatus: install ok installed\nVersion: 9\n\n"
             "Package: example-editor\nStatus: install ok installed\nInstalled-Size: 2048\nVersion: 1.2-3\n\n");
  auto app = AppAttributesReader(environment(SupportedLanguage::english)).read(entry);
  ASSERT_TRUE(app);
  EXPECT_EQ(app->category, "Development");
  EXPECT_EQ(app->version, "1.2-3");
  EXPECT_EQ(app->size, "2.1 MB");
  EXPECT_EQ(app->finalUsedDate, "--");
  Json json = app->toJson();
  std::vector<std::string> keys;
  for (auto& [key, value] : json.items()) keys.push_back(key);
  EXPECT_EQ(keys, std::vector<std::string>({"path", "category", "size", "version", "creationDate", "finalUsedDate",
                                            "cacheTimestamp"}));

  // Not from a package: the program's size, no version; a file it opened
  // (by the recently-used list) tells its last use.
  std::string other = dir_.write("share/applications/tool.desktop",
                                 "[Desktop Entry]\nType=Application\nName=Tool\nExec=" + program + "\nCategories=Utility;\n");
  std::string doc = dir_.write("docs/a.txt", "x");
  dir_.write("recent.xbel",
             "<?xml version=\"1.0\"?><xbel version=\"1.0\" xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\">"
             "<bookmark href=\"file://" + doc + "\" added=\"2024-01-01T00:00:00Z\" modified=\"2024-01-01T00:00:00Z\" "
             "visited=\"2024-01-01T00:00:00Z\"><info><metadata owner=\"http://freedesktop.org\"><bookmark:applications>"
             "<bookmark:application name=\"tool\" exec=\"tool %u\" modified=\"2024-02-03T04:05:00Z\" count=\"1\"/>"
             "</bookmark:applications></metadata></info></bookmark></xbel>");
  RecentFiles recent(dir_.path() + "/recent.xbel");
  AttributeEnvironment env = environment(SupportedLanguage::chinese);
  env.recent = &recent;
  app = AppAttributesReader(env).read(other);
  ASSERT_TRUE(app);
  EXPECT_EQ(app->category, "Utility");
  EXPECT_EQ(app->version, "--");
  EXPECT_EQ(app->size, "3 KB");
  EXPECT_EQ(app->finalUsedDate, "2024/02/03 04:05");

  // An entry without categories, and something that is no entry at all.
  std::string bare = dir_.write("share/applications/bare.desktop", "[Desktop Entry]\nType=Application\nName=B\nExec=true\n");
  EXPECT_EQ(AppAttributesReader(env).read(bare)->category, "--");
  EXPECT_FALSE(AppAttributesReader(env).read(dir_.write("share/applications/broken.desktop", "no group here")));
  auto folder = AppAttributesReader(env).read(dir_.path() + "/share");
  ASSERT_TRUE(folder);
  EXPECT_EQ(folder->version, "--");
  EXPECT_EQ(folder->category, "--");
}

}  // namespace
}  // namespace quorvi::testing

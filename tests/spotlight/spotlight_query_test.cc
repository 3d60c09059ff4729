// Metadata queries over a real file index of a temporary tree: names against
// an independent oracle, contents through the content index, recent files
// through a recently-used list the tests write.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <set>

#include "common/dispatch.h"
#include "common/settings.h"
#include "contentindex/content_indexer.h"
#include "contentindex/document_maker.h"
#include "fileindex/file_indexer.h"
#include "recent/recent_files.h"
#include "spotlight/spotlight_query.h"
#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

// A name as the generator made it: the words it is built of, where each
// word begins, and its text.
struct GeneratedName {
  std::string text;
  std::vector<std::size_t> wordStarts;  // byte offsets in `text`
};

// Folding as a user reads it: ASCII case, the accents the vocabulary uses.
std::string fold(std::string text) {
  for (auto [from, to] : std::vector<std::pair<std::string, std::string>>{{"é", "e"}, {"É", "e"}, {"ü", "u"}, {"Ü", "u"}}) {
    for (std::size_t at; (at = text.find(from)) != std::string::npos;) text.replace(at, from.size(), to);
  }
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool oracleMatches(const GeneratedName& name, const std::vector<std::string>& words) {
  for (const auto& word : words) {
    bool any = false;
    for (std::size_t start : name.wordStarts) {
      if (fold(name.text.substr(start)).starts_with(fold(word))) any = true;
    }
    if (!any) return false;
  }
  return true;
}

class SpotlightQueryTest : public ::testing::Test {
 protected:
  SpotlightQueryTest() : home_(dir_.path() + "/home"), settings_(dir_.path() + "/settings.json") {
    ::mkdir(home_.c_str(), 0755);
    files_ = std::make_unique<FileIndexer>(
        FilterEnvironment{home_, dir_.path() + "/prefs/FileIndexIgnorePaths", &settings_});
    recent_ = std::make_unique<RecentFiles>(dir_.path() + "/recently-used.xbel");
  }
  ~SpotlightQueryTest() override {
    content_.reset();
    files_->waitForPendingChanges();
  }
  void index(std::vector<std::string> scopes) {
    DispatchQueue::main().sync([&] { files_->startIndexing(scopes); });
    files_->waitForPendingChanges();
    if (content_) content_->waitUntilIdle();
  }
  void makeContentIndex() {
    ContentIndexer::Options options;
    options.databasePath = dir_.path() + "/content.sqlite3";
    options.fileEvents = &events_;
    content_ = std::make_unique<ContentIndexer>(*files_, options);
  }
  MetadataSources sources() { return {files_.get(), content_.get(), recent_.get()}; }
  static std::vector<std::string> paths(const std::vector<MetadataItem>& items, bool sort = true) {
    std::vector<std::string> out;
    for (const auto& item : items) out.push_back(item.path);
    if (sort) std::sort(out.begin(), out.end());
    return out;
  }
  static void setTimes(const std::string& path, time_t access, time_t modification) {
    timespec times[2] = {{access, 0}, {modification, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }

  TemporaryDirectory dir_;
  std::string home_;
  Settings settings_;
  FileEvents events_{FileEvents::Options{dir_.path() + "/events", std::nullopt, 0.05, 2.0, 1u << 20}};
  std::unique_ptr<FileIndexer> files_;
  std::unique_ptr<RecentFiles> recent_;
  std::unique_ptr<ContentIndexer> content_;
};

TEST_F(SpotlightQueryTest, NameQueriesAgreeWithTheOracle) {
  const std::vector<std::string> vocabulary = {"annual", "report", "budget", "Zephyr", "café", "résumé", "notes",
                                               "draft",  "PDF",    "final",  "报告",   "年度",   "q3",     "Über"};
  std::mt19937 random(7);
  std::map<std::string, GeneratedName> byPath;  // path → name
  for (int i = 0; i < 300; ++i) {
    GeneratedName name;
    int count = 1 + static_cast<int>(random() % 3);
    for (int w = 0; w < count; ++w) {
      std::string word = vocabulary[random() % vocabulary.size()];
      int joint = w == 0 ? 0 : static_cast<int>(random() % 4);
      if (joint == 1) name.text += " ";
      if (joint == 2) name.text += "-";
      if (joint == 3) name.text += "_";
      if (joint == 0 && w > 0 && std::isalpha(static_cast<unsigned char>(word[0])) &&
          std::islower(static_cast<unsigned char>(word[0])) &&
          std::islower(static_cast<unsigned char>(name.text.back()))) {
        word[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(word[0])));  // camelCase
      } else if (joint == 0 && w > 0) {
        name.text += " ";  // words that cannot be told apart when glued: keep a space
      }
      // Chinese words begin a word at every character.
      std::size_t start = name.text.size();
      name.text += word;
      if (static_cast<unsigned char>(word[0]) >= 0xE4) {
        for (std::size_t b = start; b < name.text.size(); b += 3) name.wordStarts.push_back(b);
      } else {
        name.wordStarts.push_back(start);
      }
    }
    name.text += " " + std::to_string(i);
    name.wordStarts.push_back(name.text.rfind(' ') + 1);
    std::string folder = i % 2 ? "a" : "b";
    bool isFolder = i % 10 == 0;
    std::string path = home_ + "/" + folder + "/" + name.text + (isFolder ? "" : ".txt");
    if (!isFolder) name.wordStarts.push_back(name.text.size() + 1);
    if (isFolder) {
      ::mkdir((home_ + "/" + folder).c_str(), 0755);
      ::mkdir(path.c_str(), 0755);
    } else {
      dir_.write("home/" + folder + "/" + name.text + ".txt", "x");
      name.text += ".txt";
    }
    byPath[path] = name;
  }
  index({home_});
  SpotlightQuery query(sources());

  const std::vector<std::string> keywords = {"rep",   "REPORT", "ann rep", "cafe",  "CAFÉ",  "resume", "zep",  "报告",
                                             "年度报", "q3",    "pdfr",    "fin",   "über",  "uber",   "txt",  "notes draft",
                                             "r",     "x",      "7",       "budget annual final"};
  for (const auto& keyword : keywords) {
    std::vector<std::string> words;
    for (std::size_t at = 0; at < keyword.size();) {
      std::size_t space = keyword.find(' ', at);
      if (space == std::string::npos) space = keyword.size();
      words.push_back(keyword.substr(at, space - at));
      at = space + 1;
    }
    std::vector<std::string> expected, expectedInA;
    for (const auto& [path, name] : byPath) {
      if (!oracleMatches(name, words)) continue;
      expected.push_back(path);
      if (path.starts_with(home_ + "/a/")) expectedInA.push_back(path);
    }
    auto all = query.queryByName(keyword, {home_}, 100000);
    ASSERT_FALSE(all.failure) << *all.failure;
    EXPECT_EQ(paths(all.items), expected) << keyword;
    EXPECT_EQ(paths(query.queryByName(keyword, {home_ + "/a/"}, 100000).items), expectedInA) << keyword;
    auto some = query.queryByName(keyword, {home_}, 3);
    EXPECT_EQ(some.items.size(), std::min<std::size_t>(3, expected.size())) << keyword;
    for (const auto& path : paths(some.items)) EXPECT_TRUE(std::binary_search(expected.begin(), expected.end(), path));
    for (const auto& item : all.items) {
      bool folder = !item.path.ends_with(".txt");
      EXPECT_EQ(item.isDir, folder) << item.path;
      EXPECT_EQ(item.contentType, folder ? "public.folder" : "public.plain-text") << item.path;
      EXPECT_EQ(item.nameOfDisplay, item.path.substr(item.path.rfind('/') + 1));
    }
  }
}

TEST_F(SpotlightQueryTest, ScopesCountsAndFailures) {
  dir_.write("home/in/report.txt", "x");
  dir_.write("home/inside/report.md", "x");
  dir_.write("home/ignored/report.log", "x");
  dir_.write("prefs/FileIndexIgnorePaths", R"({"ignoreKeywords": ["ignored"]})");
  index({home_});
  SpotlightQuery query(sources());
  auto empty = query.queryByName("report", {}, 10);
  EXPECT_EQ(empty.failure, "search scope is empty");
  EXPECT_TRUE(empty.items.empty());
  EXPECT_TRUE(query.queryByName("report", {"relative/in", ""}, 10).items.empty());
  EXPECT_TRUE(query.queryByName("report", {home_}, 0).items.empty());
  EXPECT_TRUE(query.queryByName("report", {home_}, -5).items.empty());
  // "/in" is not "/inside"; the filter keeps its ignored file out.
  EXPECT_EQ(paths(query.queryByName("report", {home_ + "/in"}, 10).items), std::vector<std::string>{home_ + "/in/report.txt"});
  EXPECT_EQ(paths(query.queryByName("report", {home_}, 10).items),
            std::vector<std::string>({home_ + "/in/report.txt", home_ + "/inside/report.md"}));
  // A file gone since it was indexed is not reported.
  ::unlink((home_ + "/in/report.txt").c_str());
  EXPECT_EQ(paths(query.queryByName("report", {home_}, 10).items), std::vector<std::string>{home_ + "/inside/report.md"});
  // Only spaces: no words, no clauses, so no query can be made.
  EXPECT_TRUE(query.queryByName("   ", {home_}, 10).items.empty());

  MetadataQueryEngine engine(sources());
  EXPECT_TRUE(engine.execute("kMDItemFinderComment == 'report*'cdw", {home_}, 10, false).items.empty());
  EXPECT_TRUE(engine.execute("kMDItemNoSuchThing == 'x'", {home_}, 10, false).items.empty());
  EXPECT_EQ(engine.execute("kMDItemFSName == ", {home_}, 10, false).failure, "failed to create a query");
  EXPECT_EQ(paths(engine.execute("kMDItemContentType == 'net.daringfireball.markdown'", {home_}, 10, false).items),
            std::vector<std::string>{home_ + "/inside/report.md"});
  EXPECT_EQ(paths(engine.execute("kMDItemContentType == \"public.folder\" && kMDItemFSName == 'ins*'c", {home_}, 10, false).items),
            std::vector<std::string>{home_ + "/inside"});
}

TEST_F(SpotlightQueryTest, NamesFirstThenContentsEachOnce) {
  makeContentIndex();
  std::string byName = dir_.write("home/zephyr plan.txt", "nothing to see");
  std::string both = dir_.write("home/zephyr notes.md", "zephyr again");
  std::string pdf = home_ + "/paper.pdf";
  dir_.write("home/paper.pdf", makePdf({"The Zephyr wind"}));
  std::string odt = home_ + "/letter.odt";
  ASSERT_TRUE(writeOdt(odt, {"zephyrs over the hill"}));
  std::string docx = home_ + "/memo.docx";
  ASSERT_TRUE(writeDocx(docx, {{"Zeph", "yr"}}));
  std::string chinese = dir_.write("home/总结.txt", "我们的年度报告");
  dir_.write("home/other.txt", "unrelated");
  index({home_});
  SpotlightQuery query(sources());

  auto result = query.queryByNameAndContents("zephyr", {home_}, 20);
  ASSERT_EQ(result.items.size(), 5u);
  EXPECT_EQ(paths({result.items[0], result.items[1]}), std::vector<std::string>({both, byName}));
  EXPECT_EQ(paths({result.items[2], result.items[3], result.items[4]}), std::vector<std::string>({odt, docx, pdf}));
  EXPECT_EQ(result.items[2].contentType == "com.adobe.pdf" || result.items[3].contentType == "com.adobe.pdf" ||
                result.items[4].contentType == "com.adobe.pdf",
            true);
  // As many name matches as asked for: contents are not consulted.
  result = query.queryByNameAndContents("zephyr", {home_}, 2);
  EXPECT_EQ(paths(result.items), std::vector<std::string>({both, byName}));
  result = query.queryByNameAndContents("zephyr", {home_}, 3);
  EXPECT_EQ(result.items.size(), 3u);
  // Chinese text found by a part of a word; contents limited to the scopes.
  EXPECT_EQ(paths(query.queryByNameAndContents("报告", {home_}, 10).items), std::vector<std::string>{chinese});
  EXPECT_TRUE(query.queryByNameAndContents("报告", {home_ + "/elsewhere"}, 10).items.empty());
  // Words of the keyword must all be in the text.
  EXPECT_EQ(paths(query.queryByNameAndContents("wind the", {home_}, 10).items), std::vector<std::string>{pdf});
}

TEST_F(SpotlightQueryTest, RecentFilesMostRecentlyUsedFirst) {
  std::string old = dir_.write("home/old.txt", "x");
  std::string opened = dir_.write("home/opened.txt", "x");
  std::string outside = dir_.write("elsewhere/outside.txt", "x");
  ::mkdir((home_ + "/folder").c_str(), 0755);
  for (const auto& path : {old, opened, outside, home_ + "/folder"}) setTimes(path, 1500000100, 1500000000);
  dir_.write("recently-used.xbel",
             "<?xml version=\"1.0\"?><xbel version=\"1.0\" xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\">"
             "<bookmark href=\"file://" + opened + "\" added=\"2024-01-01T00:00:00Z\" modified=\"2024-01-01T00:00:00Z\" visited=\"2024-05-01T00:00:00Z\"/>"
             "<bookmark href=\"file://" + outside + "\" added=\"2024-01-01T00:00:00Z\" modified=\"2024-01-01T00:00:00Z\" visited=\"2024-04-01T00:00:00Z\"/>"
             "<bookmark href=\"file://" + home_ + "/folder\" added=\"2024-01-01T00:00:00Z\" modified=\"2024-01-01T00:00:00Z\" visited=\"2024-06-01T00:00:00Z\"/>"
             "</xbel>");
  index({home_});
  auto items = SpotlightQuery(sources()).recentFiles();
  ASSERT_TRUE(items);
  std::vector<std::string> order = paths(*items, false);
  ASSERT_GE(order.size(), 2u);
  EXPECT_EQ(order[0], opened);
  EXPECT_EQ(order[1], outside);  // the list knows files outside the index too
  EXPECT_EQ((*items)[0].lastUsedTimestamp, 1714521600);
  EXPECT_EQ(std::count(order.begin(), order.end(), home_ + "/folder"), 0);  // folders are not recent files
  // The old file counts by its access time, where the mount keeps one.
  if (order.size() == 3u) {
    EXPECT_EQ(order[2], old);
    EXPECT_EQ((*items)[2].lastUsedTimestamp, 1500000100);
  }
}

}  // namespace
}  // namespace quorvi::testing

// The scope scan over real folders: what is recorded, in which order, with
// which match text.
#include <unistd.h>

#include "fileindex/match_text.h"
#include "fileindex/scope_scan.h"
#include "index_fixture.h"

namespace quorvi::testing {
namespace {

class ScanTest : public ::testing::Test {
 protected:
  void SetUp() override { tree_.settings().set(Filter::kDidInitNodeModulesKey, true); }
  std::vector<File> scan(const std::vector<std::string>& scopes) {
    indexScopes(indexer_, scopes);
    return allRecords(indexer_);
  }
  std::vector<std::string> relativePaths(const std::vector<File>& files) {
    std::vector<std::string> paths;
    for (const auto& f : files) paths.push_back(f.fileRefURL.path.substr(tree_.home().size() + 1));
    return sorted(paths);
  }
  IndexTree tree_;
  FileIndexer indexer_{tree_.environment(), false, &testFileEvents()};
};

TEST_F(ScanTest, HiddenFilesOnlyInsideTheCloudDriveScopeAndPackageContentsNowhere) {
  tree_.file("docs/a.txt");
  tree_.file("docs/.hidden.txt");
  tree_.file(".config/app.conf");
  tree_.file("docs/Tool.app/Contents/Info.plist");
  tree_.file("docs/node_modules/left/index.js");
  tree_.file("docs/~$draft.docx");
  tree_.file("Nextcloud/.sync.db");
  tree_.file("Nextcloud/Shared.app/inner.txt");
  tree_.file("Nextcloud/.notes/n.md");
  auto files = scan({tree_.home() + "/docs", "~/Nextcloud/"});
  EXPECT_EQ(relativePaths(files), (std::vector<std::string>{"Nextcloud/.notes", "Nextcloud/.notes/n.md",
                                                            "Nextcloud/.sync.db", "Nextcloud/Shared.app",
                                                            "docs/Tool.app", "docs/a.txt"}));
  EXPECT_EQ(indexer_.searchScopes(), (std::vector<std::string>{tree_.home() + "/docs", tree_.home() + "/Nextcloud"}));
}

TEST_F(ScanTest, OverlappingScopesRecordEachFileOnce) {
  tree_.file("work/a.txt");
  tree_.file("work/inner/b.txt");
  tree_.file("work/inner/deep/c.txt");
  tree_.file("work/.hid/d.txt");
  // Inner scope first, then the outer one, then a duplicate.
  auto files = scan({tree_.home() + "/work/inner", tree_.home() + "/work", tree_.home() + "/work/"});
  EXPECT_EQ(relativePaths(files),
            (std::vector<std::string>{"work/a.txt", "work/inner", "work/inner/b.txt", "work/inner/deep",
                                      "work/inner/deep/c.txt"}));
  // Outer first, then inner: the same set.
  auto again = scan({tree_.home() + "/work", tree_.home() + "/work/inner"});
  EXPECT_EQ(relativePaths(again), relativePaths(files));
}

TEST_F(ScanTest, RecordsAreNewestFirstWithTheirTimesAndKinds) {
  tree_.file("t/old.txt", 1.0e9);
  tree_.file("t/new.txt", 1.7e9);
  tree_.file("t/mid.txt", 1.4e9);
  tree_.folder("t/dir", 1.5e9);
  ::symlink((tree_.home() + "/t/dir").c_str(), (tree_.home() + "/t/link").c_str());
  auto files = scan({tree_.home() + "/t"});
  ASSERT_EQ(files.size(), 5u);
  for (std::size_t i = 1; i < files.size(); ++i) EXPECT_GE(files[i - 1], files[i]);
  EXPECT_EQ(files[files.size() - 1].nameOfDisplay, "old.txt");
  EXPECT_EQ(files[files.size() - 1].lastUsedTimestamp, 1.0e9);
  for (const auto& f : files) {
    EXPECT_EQ(f.isDirectory, f.nameOfDisplay == "dir" || f.nameOfDisplay == "link") << f.nameOfDisplay;
  }
  auto state = indexer_.state();
  ASSERT_TRUE(state.indexResultDescription);
  EXPECT_EQ(state.indexResultDescription->countOfFiles, 5);
  EXPECT_TRUE(state.indexDescription->starts_with("#fs ends 5 in ")) << *state.indexDescription;
}

TEST_F(ScanTest, MatchTextHoldsTheLowerCasedNameAndPinyinForChineseNames) {
  tree_.file("m/Quarterly REPORT.PDF");
  tree_.file("m/报告2024.pdf");
  tree_.file("m/Émile.txt");
  auto files = scan({tree_.home() + "/m"});
  std::map<std::string, std::string> matchOf;
  for (const auto& f : files) matchOf[f.nameOfDisplay] = std::string(f.cmatchs.view());
  EXPECT_EQ(matchOf["Quarterly REPORT.PDF"], "quarterly report.pdf");
  EXPECT_EQ(matchOf["Émile.txt"], "émile.txt");
  const std::string chinese = matchOf["报告2024.pdf"];
  EXPECT_TRUE(chinese.starts_with("报告2024.pdf ")) << chinese;
  EXPECT_NE(chinese.find("baogao2024.pdf"), std::string::npos) << chinese;
  EXPECT_NE(chinese.find(" bg"), std::string::npos) << chinese;
  EXPECT_EQ(namesOf(indexer_.searchFiles("baogao", 10)), std::vector<std::string>{"报告2024.pdf"});
  EXPECT_EQ(namesOf(indexer_.searchFiles("report", 10)), std::vector<std::string>{"Quarterly REPORT.PDF"});
  // Found by path whatever the name's case or script (#15).
  for (const char* name : {"Quarterly REPORT.PDF", "报告2024.pdf", "Émile.txt"}) {
    EXPECT_TRUE(indexer_.containsFile(tree_.home() + "/m/" + name)) << name;
  }
  EXPECT_FALSE(indexer_.containsFile(tree_.home() + "/m/quarterly report.pdf"));
  EXPECT_FALSE(indexer_.containsFile(tree_.home() + "/m/émile.txt"));
}

TEST_F(ScanTest, NamesThatAreNotUtf8AreFoundAndEncodeIntoValidJson) {
  std::string raw = "caf\xE9-menu.txt";  // Latin-1 é
  tree_.file("u/" + raw);
  auto files = scan({tree_.home() + "/u"});
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].nameOfDisplay, raw);  // the real name, for the path
  EXPECT_EQ(std::string(files[0].cmatchs.view()), "caf\xEF\xBF\xBD-menu.txt");
  EXPECT_TRUE(isValidUtf8(files[0].cmatchs.view()));
  auto hits = indexer_.searchFiles("menu", 10);
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_TRUE(hits[0].fileRefURL.isReachable());
  EXPECT_TRUE(indexer_.containsFile(tree_.home() + "/u/" + raw));
  Json array = Json::array({FileBridge::from(hits[0]).toJson()});
  auto bytes = encodeJson(array);
  ASSERT_TRUE(bytes);
  EXPECT_TRUE(isValidUtf8(*bytes));
  EXPECT_NE(bytes->find("caf\xEF\xBF\xBD-menu.txt"), std::string::npos);
}

TEST_F(ScanTest, AddAndRemoveScopesWithTildeAndThePlainPrefixRule) {
  tree_.file("a/one.txt");
  tree_.file("ab/two.txt");
  tree_.file("c/three.txt");
  indexScopes(indexer_, {"~/a"});
  onMain([&] { indexer_.addSearchScopes({"~/ab", "~/a", "~/c"}); });
  indexer_.waitForPendingChanges();
  EXPECT_EQ(indexer_.searchScopes(),
            (std::vector<std::string>{tree_.home() + "/a", tree_.home() + "/ab", tree_.home() + "/c"}));
  EXPECT_EQ(sorted(namesOf(allRecords(indexer_))), (std::vector<std::string>{"one.txt", "three.txt", "two.txt"}));
  EXPECT_EQ(indexer_.state().indexResultDescription->countOfFiles, 3);
  // Removing ~/a also drops ~/ab's records (string prefix), not ~/c's.
  onMain([&] { indexer_.removeSearchScopes({"~/a"}); });
  indexer_.waitForPendingChanges();
  EXPECT_EQ(sorted(namesOf(allRecords(indexer_))), (std::vector<std::string>{"three.txt"}));
  EXPECT_EQ(indexer_.searchScopes(), (std::vector<std::string>{tree_.home() + "/ab", tree_.home() + "/c"}));
  // Adding a scope around indexed ones records nothing twice, and records
  // what the index lacks: ~/c's file once, ~/ab's again (its records went
  // with ~/a), and the folders themselves.
  onMain([&] { indexer_.addSearchScopes({"~"}); });
  indexer_.waitForPendingChanges();
  EXPECT_EQ(sorted(namesOf(allRecords(indexer_))),
            (std::vector<std::string>{"a", "ab", "c", "one.txt", "three.txt", "two.txt"}));
}

// A trailing slash makes the prefix a folder: removing "~/c/" keeps the
// records of a sibling scope "~/cd".
TEST_F(ScanTest, ARemovedScopeWithATrailingSlashKeepsItsSiblings) {
  tree_.file("c/three.txt");
  tree_.file("cd/four.txt");
  indexScopes(indexer_, {"~/c", "~/cd"});
  onMain([&] { indexer_.removeSearchScopes({"~/c/"}); });
  indexer_.waitForUpkeep();
  EXPECT_EQ(sorted(namesOf(allRecords(indexer_))), (std::vector<std::string>{"four.txt"}));
  EXPECT_EQ(indexer_.searchScopes(), (std::vector<std::string>{tree_.home() + "/cd"}));
  EXPECT_EQ(indexer_.state().indexResultDescription->countOfFiles, 1);
}

// Adding a scope around an indexed one finds what the index lacks, whatever
// the disk looked like when the inner scope was indexed.
TEST_F(ScanTest, AnAddedScopeDecidesByWhatTheIndexHolds) {
  tree_.file("w/sub/old.txt");
  tree_.file("w/top.txt");
  indexScopes(indexer_, {"~/w/sub"});
  tree_.file("w/sub/new.txt");  // after the inner scan, before the add
  onMain([&] { indexer_.addSearchScopes({"~/w"}); });
  indexer_.waitForPendingChanges();
  EXPECT_EQ(sorted(namesOf(allRecords(indexer_))), (std::vector<std::string>{"new.txt", "old.txt", "sub", "top.txt"}));
  EXPECT_EQ(namesOf(indexer_.searchFiles("new", 10)), std::vector<std::string>{"new.txt"});
  EXPECT_EQ(indexer_.state().indexResultDescription->countOfFiles, 4);
  EXPECT_TRUE(indexer_.state().indexDescription->starts_with("#fs ends 4 in ")) << *indexer_.state().indexDescription;
}

TEST_F(ScanTest, CallsOffTheMainThreadDoNothing) {
  tree_.file("x/a.txt");
  indexer_.startIndexing({tree_.home() + "/x"});
  indexer_.waitForPendingChanges();
  EXPECT_FALSE(indexer_.state().isIndexing);
  EXPECT_FALSE(indexer_.state().indexResultDescription);
  EXPECT_TRUE(indexer_.isEmpty());
}

}  // namespace
}  // namespace quorvi::testing

namespace quorvi::testing {
namespace {

TEST(ProjectLists, WorkspacesIdeProjectsAndDirectoryEntries) {
  IndexTree tree;
  tree.settings().set(Filter::kDidInitNodeModulesKey, true);
  tree.file("code/site.code-workspace");
  tree.file("code/Old.CODE-WORKSPACE");
  tree.file("code/notes.code-workspace.bak");
  tree.file("code/App.xcodeproj/project.pbxproj");
  tree.file("code/Game.sln");
  tree.file("code/tool.kdev4");
  tree.file("code/vendor.sln/readme.txt");  // a folder named like a project file
  tree.file("code/node_modules/x/y.code-workspace");
  tree.file("code/.hidden.txt");
  FileIndexer indexer(tree.environment(), false, &testFileEvents());
  indexScopes(indexer, {"~/code"});
  EXPECT_EQ(sorted(namesOf(indexer.codeWorkspaces())), (std::vector<std::string>{"Old.CODE-WORKSPACE", "site.code-workspace"}));
  EXPECT_EQ(sorted(namesOf(indexer.ideProjects())), (std::vector<std::string>{"App.xcodeproj", "Game.sln", "tool.kdev4"}));
  // A listed file that is gone is left out.
  ::unlink((tree.home() + "/code/Game.sln").c_str());
  EXPECT_EQ(sorted(namesOf(indexer.ideProjects())), (std::vector<std::string>{"App.xcodeproj", "tool.kdev4"}));

  auto all = directoryFiles(tree.home() + "/code", false);
  ASSERT_TRUE(all);
  std::vector<std::string> names;
  for (const auto& entry : *all) names.push_back(entry.nameOfDisplay + (entry.isFolder ? "/" : ""));
  EXPECT_EQ(names, (std::vector<std::string>{".hidden.txt", "App.xcodeproj/", "Old.CODE-WORKSPACE",
                                             "node_modules/", "notes.code-workspace.bak", "site.code-workspace",
                                             "tool.kdev4", "vendor.sln/"}));
  EXPECT_EQ(all->front().path, tree.home() + "/code/.hidden.txt");
  auto visible = directoryFiles(tree.home() + "/code/", true);
  ASSERT_TRUE(visible);
  EXPECT_EQ(visible->size(), names.size() - 1);
  EXPECT_FALSE(directoryFiles(tree.home() + "/missing", false));
  EXPECT_FALSE(directoryFiles("", false));
  // A huge folder answers its first entries by name, from a bounded read.
  auto firstThree = directoryFiles(tree.home() + "/code", false, 3);
  ASSERT_TRUE(firstThree);
  ASSERT_EQ(firstThree->size(), 3u);
  EXPECT_EQ(firstThree->back().nameOfDisplay, "Old.CODE-WORKSPACE");
  auto fromFive = directoryFiles(tree.home() + "/code", false, 3, 5);
  ASSERT_TRUE(fromFive);
  ASSERT_EQ(fromFive->size(), 3u);
  EXPECT_TRUE(std::is_sorted(fromFive->begin(), fromFive->end(),
                             [](const auto& a, const auto& b) { return a.nameOfDisplay < b.nameOfDisplay; }));
}

}  // namespace
}  // namespace quorvi::testing

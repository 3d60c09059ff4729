// Keyword search: parsing, the match loop and its count rules, dedupe, the
// post-check with stale repair, and the directory restriction.
#include <unistd.h>

#include <random>

#include "fileindex/match_logic.h"
#include "index_fixture.h"

namespace quorvi::testing {
namespace {

std::vector<std::string> texts(const std::vector<CStringRef>& list) {
  std::vector<std::string> out;
  for (const auto& c : list) out.emplace_back(c.view());
  return out;
}

TEST(QueryParsing, TermsAlternativesBarsAndWhiteSpace) {
  auto groups = MatchLogic::parse("report 2023|2024");
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(groups[0].andQuery.view(), "report");
  EXPECT_FALSE(groups[0].orQuery);
  EXPECT_EQ(groups[1].andQuery.view(), "2023|2024");
  EXPECT_EQ(texts(*groups[1].orQuery), (std::vector<std::string>{"2023", "2024"}));
  // The fullwidth bar is the same separator.
  auto wide = MatchLogic::parse("a\xEF\xBD\x9C" "b");
  ASSERT_EQ(wide.size(), 1u);
  EXPECT_EQ(texts(*wide[0].orQuery), (std::vector<std::string>{"a", "b"}));
  // "a|" keeps one alternative; a lone bar keeps none and is the literal byte.
  EXPECT_EQ(texts(*MatchLogic::parse("a|")[0].orQuery), std::vector<std::string>{"a"});
  auto bar = MatchLogic::parse("||");
  ASSERT_EQ(bar.size(), 1u);
  EXPECT_FALSE(bar[0].orQuery);
  EXPECT_EQ(bar[0].andQuery.view(), "||");
  // Tabs, ideographic and no-break spaces split; line breaks do not.
  auto spaced = MatchLogic::parse(" a\tb\xE3\x80\x80" "c\xC2\xA0" "d\ne ");
  std::vector<std::string> terms;
  for (const auto& g : spaced) terms.emplace_back(g.andQuery.view());
  EXPECT_EQ(terms, (std::vector<std::string>{"a", "b", "c", "d\ne"}));
  EXPECT_TRUE(MatchLogic::parse(" \t\xE3\x80\x80 ").empty());
  // Case is kept as typed.
  EXPECT_EQ(MatchLogic::parse("ABC")[0].andQuery.view(), "ABC");
}

class SearchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree_.settings().set(Filter::kDidInitNodeModulesKey, true);
    // Newest first: names carry their rank.
    tree_.file("s/r1-report-2024.txt", 1.9e9);
    tree_.file("s/r2-report-2023.txt", 1.8e9);
    tree_.file("s/r3-notes.txt", 1.7e9);
    tree_.file("s/r4-report-draft.txt", 1.6e9);
    tree_.folder("s/r5-reports", 1.5e9);
    tree_.file("s/x/r6-in-x.txt", 1.4e9);
    tree_.file("s/xy/r7-in-xy.txt", 1.3e9);
    tree_.folder("s/x", 1.2e9);
    tree_.folder("s/xy", 1.1e9);
    tree_.folder("s", 1.0e9);
    indexScopes(indexer_, {tree_.home() + "/s"});
  }
  IndexTree tree_;
  FileIndexer indexer_{tree_.environment(), false, &testFileEvents()};
};

TEST_F(SearchTest, AndOrGroupsInIndexOrder) {
  EXPECT_EQ(namesOf(indexer_.searchFiles("report", 100)),
            (std::vector<std::string>{"r1-report-2024.txt", "r2-report-2023.txt", "r4-report-draft.txt",
                                      "r5-reports"}));
  EXPECT_EQ(namesOf(indexer_.searchFiles("report 2023|draft", 100)),
            (std::vector<std::string>{"r2-report-2023.txt", "r4-report-draft.txt"}));
  EXPECT_EQ(namesOf(indexer_.searchFiles("2024\xEF\xBD\x9Cnotes .txt", 100)),
            (std::vector<std::string>{"r1-report-2024.txt", "r3-notes.txt"}));
  EXPECT_TRUE(indexer_.searchFiles("report missing", 100).empty());
  EXPECT_TRUE(indexer_.searchFiles("REPORT", 100).empty());  // no folding in the matcher
  EXPECT_EQ(indexer_.searchFiles("   ", 100).size(), 9u);     // white space matches all
  EXPECT_EQ(namesOf(indexer_.searchFolders("report", 100)), std::vector<std::string>{"r5-reports"});
  EXPECT_TRUE(indexer_.searchFolders("", 100).empty());
}

TEST_F(SearchTest, MaxcountCutsAfterEachRecordAndZeroOrNegativeExamineOnlyTheFirst) {
  EXPECT_EQ(namesOf(indexer_.searchFiles("report", 2)),
            (std::vector<std::string>{"r1-report-2024.txt", "r2-report-2023.txt"}));
  for (int64_t count : {int64_t{0}, int64_t{-1}, INT64_MIN}) {
    // The first record matches "r1" and is the one hit; "notes" lies further on.
    EXPECT_EQ(namesOf(indexer_.searchFiles("r1", count)), std::vector<std::string>{"r1-report-2024.txt"});
    EXPECT_TRUE(indexer_.searchFiles("notes", count).empty());
    EXPECT_EQ(indexer_.searchFiles("", count).size(), 1u);
  }
  EXPECT_EQ(indexer_.searchFiles("", INT64_MAX).size(), 9u);
}

TEST_F(SearchTest, DirectoryRestrictionDoesNotLeakIntoSiblingsWithTheSamePrefix) {
  const std::string x = tree_.home() + "/s/x";
  EXPECT_EQ(namesOf(indexer_.searchFiles(x, "r", 100)), std::vector<std::string>{"r6-in-x.txt"});
  EXPECT_EQ(namesOf(indexer_.searchFiles(x + "/", "r", 100)), std::vector<std::string>{"r6-in-x.txt"});
  EXPECT_EQ(namesOf(indexer_.searchFiles(tree_.home() + "/s/xy", "", 100)), std::vector<std::string>{"r7-in-xy.txt"});
  EXPECT_TRUE(indexer_.searchFiles("", "r", 100).empty());
  EXPECT_TRUE(indexer_.containsFile(x + "/r6-in-x.txt"));
  EXPECT_FALSE(indexer_.containsFile(x + "/r7-in-xy.txt"));
  EXPECT_FALSE(indexer_.containsFile(""));
  // Folders are records, the scope itself is not; names are compared exactly.
  EXPECT_TRUE(indexer_.containsFile(x));
  EXPECT_FALSE(indexer_.containsFile(tree_.home() + "/s"));
  EXPECT_FALSE(indexer_.containsFile(x + "/"));
  EXPECT_FALSE(indexer_.containsFile(x + "/R6-in-x.txt"));
  EXPECT_FALSE(indexer_.containsFile(tree_.home() + "/s/nowhere/r6-in-x.txt"));
  EXPECT_FALSE(indexer_.containsFile("r6-in-x.txt"));
}

TEST_F(SearchTest, HardLinksToOneFileGiveOneHit) {
  ASSERT_EQ(::link((tree_.home() + "/s/r3-notes.txt").c_str(), (tree_.home() + "/s/r3-notes-copy.txt").c_str()), 0);
  indexScopes(indexer_, {tree_.home() + "/s"});
  EXPECT_EQ(allRecords(indexer_).size(), 10u);
  EXPECT_EQ(indexer_.searchFiles("notes", 100).size(), 1u);
}

TEST_F(SearchTest, GoneAndIgnoredHitsAreDroppedAndRemovedAndReplacedOnesRefreshed) {
  // Gone: not returned, and removed so that it stops taking result slots.
  ::unlink((tree_.home() + "/s/r4-report-draft.txt").c_str());
  EXPECT_EQ(namesOf(indexer_.searchFiles("draft", 100)), std::vector<std::string>{});
  indexer_.waitForPendingChanges();
  EXPECT_EQ(allRecords(indexer_).size(), 8u);
  EXPECT_EQ(namesOf(indexer_.searchFiles("report", 1)), std::vector<std::string>{"r1-report-2024.txt"});
  // Ignored after indexing: dropped and removed in the background.
  tree_.writePreferences(R"({"ignoreKeywords": ["2023"]})");
  onMain([&] { indexer_.addSearchScopes({}); });  // rebuilds the filter
  EXPECT_EQ(namesOf(indexer_.searchFiles("report", 100)),
            (std::vector<std::string>{"r1-report-2024.txt", "r5-reports"}));
  indexer_.waitForPendingChanges();
  EXPECT_FALSE(indexer_.containsFile(tree_.home() + "/s/r2-report-2023.txt"));
  EXPECT_EQ(allRecords(indexer_).size(), 7u);
  // Saved the way editors save (a new file renamed over the old one): still
  // found, under its path, and its record takes the new file's identity.
  const std::string path = tree_.home() + "/s/r1-report-2024.txt";
  tree_.file("s/r1-report-2024.txt.tmp", 1.75e9, "new text");
  ASSERT_EQ(::rename((path + ".tmp").c_str(), path.c_str()), 0);
  auto hits = indexer_.searchFiles("2024", 10);
  ASSERT_EQ(namesOf(hits), std::vector<std::string>{"r1-report-2024.txt"});
  EXPECT_TRUE(hits[0].fileRefURL.isReachable());
  indexer_.waitForUpkeep();
  EXPECT_TRUE(indexer_.containsFile(path));
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  bool renewed = false;
  for (const auto& file : allRecords(indexer_)) {
    if (file.fileRefURL.path == path) renewed = file.fileRefURL.inode == st.st_ino && file.lastUsedTimestamp == 1.75e9;
  }
  EXPECT_TRUE(renewed);
}

TEST(TrashSearch, HitsInTheTrashAreNeitherReturnedNorKept) {
  IndexTree tree;
  FileIndexer indexer(tree.environment(), false, &testFileEvents());
  tree.file(".local/share/Trash/files/old-plan.txt");
  tree.file("Nextcloud/.Trash/old-draft.txt");
  indexScopes(indexer, {"~/.local/share/Trash/files", "~/Nextcloud"});
  EXPECT_EQ(allRecords(indexer).size(), 3u);  // the two files and Nextcloud/.Trash
  EXPECT_TRUE(indexer.searchFiles("old", 100).empty());
  indexer.waitForPendingChanges();
  EXPECT_EQ(namesOf(allRecords(indexer)), std::vector<std::string>{".Trash"});
}

// The fast loop must answer exactly what testing every record in turn does.
TEST(MatchLoop, AgreesWithTheRecordByRecordLoopOnRandomNamesAndQueries) {
  IndexTree tree;
  tree.settings().set(Filter::kDidInitNodeModulesKey, true);
  std::mt19937 random(7);
  const char* words[] = {"ab", "abc", "b", "report", "rep", "2024", "x|y", "ort", "a", "zz"};
  for (int i = 0; i < 300; ++i) {
    std::string name;
    for (int k = 0; k < 3; ++k) name += std::string(words[random() % 10]).substr(0, 3) + (k < 2 ? "-" : "");
    name.erase(std::remove(name.begin(), name.end(), '|'), name.end());
    std::string path = tree.file("r/" + std::to_string(i % 7) + "/" + name + std::to_string(i),
                                 1.0e9 + double(random() % 5) * 1e6);
    // Hard links: one file under two names, which the loop must report once.
    if (i % 10 == 0) ::link(path.c_str(), (tree.home() + "/r/" + std::to_string((i + 3) % 7) + "/l" + name).c_str());
  }
  FileIndexer indexer(tree.environment(), false, &testFileEvents());
  indexScopes(indexer, {tree.home() + "/r"});
  onMain([&] { indexer.addSearchScopes({tree.home() + "/r/3"}); });  // covered already: adds nothing
  indexer.waitForPendingChanges();
  FileSegments segments = indexer.fileRef().copy();
  for (int q = 0; q < 400; ++q) {
    std::string query;
    int terms = static_cast<int>(random() % 3);
    for (int t = 0; t < terms; ++t) query += std::string(words[random() % 10]) + (random() % 2 ? " " : "|");
    int64_t maxcount = static_cast<int64_t>(random() % 40) - 5;
    auto groups = MatchLogic::parse(query);
    std::vector<std::pair<uint32_t, uint32_t>> expected;
    std::vector<uint64_t> seen;
    bool stop = false;
    for (uint32_t s = 0; s < segments.size() && !stop; ++s) {
      for (uint32_t r = 0; r < segments[s]->size(); ++r) {
        if (MatchLogic::matchesAll(groups, segments[s]->matchCString(r)) &&
            std::find(seen.begin(), seen.end(), segments[s]->inode(r)) == seen.end()) {
          expected.emplace_back(s, r);
          seen.push_back(segments[s]->inode(r));
        }
        if (static_cast<int64_t>(expected.size()) >= maxcount) {
          stop = true;
          break;
        }
      }
    }
    std::vector<std::pair<uint32_t, uint32_t>> actual;
    for (const auto& hit : runMatchLoop(segments, groups, maxcount, nullptr)) actual.emplace_back(hit.segment, hit.row);
    ASSERT_EQ(actual, expected) << "query '" << query << "' maxcount " << maxcount;
  }
}

}  // namespace
}  // namespace quorvi::testing

namespace quorvi::testing {
namespace {

// The vectorised substring search answers what std::string::find does, at
// every length and alignment around its 64-byte steps, NULs included.
TEST(FindBytes, AgreesWithStringFind) {
  std::mt19937 random(11);
  for (int round = 0; round < 3000; ++round) {
    std::size_t length = random() % 300;
    std::string text(length, 'a');
    for (auto& c : text) c = "ab\0c"[random() % 4];
    std::size_t size = 1 + random() % 6;
    std::string needle(size, 'a');
    for (auto& c : needle) c = "abc"[random() % 3];
    std::size_t offset = length ? random() % (length + 1) : 0;
    const char* found = findBytes(text.data() + offset, text.data() + length, needle);
    std::size_t expected = text.find(needle, offset);
    if (expected == std::string::npos) {
      ASSERT_EQ(found, nullptr) << round;
    } else {
      ASSERT_NE(found, nullptr) << round;
      ASSERT_EQ(static_cast<std::size_t>(found - text.data()), expected) << round;
    }
  }
}

}  // namespace
}  // namespace quorvi::testing

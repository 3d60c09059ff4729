// The ranking and word handling desktop searches rest on.
#include <gtest/gtest.h>

#include "desktop/desktop_search.h"

namespace quorvi {
namespace {

double relevance(const std::string& name, const std::string& typed, bool* exact = nullptr) {
  return DesktopSearch::nameRelevance(DesktopSearch::lowercased(name), DesktopSearch::wordsOf(typed), exact);
}

TEST(DesktopSearchTest, WordsAreSplitAtBlanksAndLowerCased) {
  EXPECT_EQ(DesktopSearch::wordsOf("  Annual\tREPORT  2024 "), (std::vector<std::string>{"annual", "report", "2024"}));
  EXPECT_EQ(DesktopSearch::wordsOf("ÉCOLE Straße"), (std::vector<std::string>{"école", "straße"}));
  EXPECT_EQ(DesktopSearch::wordsOf("报告 A"), (std::vector<std::string>{"报告", "a"}));
  EXPECT_TRUE(DesktopSearch::wordsOf(" \t ").empty());
}

TEST(DesktopSearchTest, EqualNamesThenPrefixesThenWordStartsThenTheRest) {
  bool exact = false;
  EXPECT_EQ(relevance("Report.txt", "report", &exact), 1.0);
  EXPECT_TRUE(exact);
  EXPECT_EQ(relevance("report", "REPORT"), 1.0);
  EXPECT_EQ(relevance("annual report.pdf", "annual report"), 1.0);
  EXPECT_EQ(relevance("reports", "report", &exact), 0.75);
  EXPECT_FALSE(exact);
  EXPECT_EQ(relevance("report-2024.txt", "report 2024"), 0.75);
  EXPECT_EQ(relevance("annual_report.txt", "report"), 0.5);
  EXPECT_EQ(relevance("annual report 2024.txt", "2024 annual"), 0.5);
  EXPECT_EQ(relevance("misreported.txt", "report"), 0.25);
  // A dot file's whole name is its name, not an empty stem with an extension.
  EXPECT_EQ(relevance(".bashrc", "bashrc"), 0.5);
  EXPECT_EQ(relevance("report", ""), 0.0);
}

TEST(DesktopSearchTest, ContainsAllWantsEveryWord) {
  EXPECT_TRUE(DesktopSearch::containsAll("annual report 2024", {"2024", "ann"}));
  EXPECT_FALSE(DesktopSearch::containsAll("annual report 2024", {"2024", "monthly"}));
  EXPECT_TRUE(DesktopSearch::containsAll("anything", {}));
}

TEST(DesktopSearchTest, ZoteroItemsAreReadFromTheGroupsAnswer) {
  // The shape #28 answers: groups of entries; nested objects and other
  // fields are passed over; entries without a key or title are left out.
  std::string groups = R"([
    {"library": "ZOTERO_MY_LIBRARY", "entries": [
      {"itemID": 1, "title": "On Computable Numbers", "library": "ZOTERO_MY_LIBRARY", "libraryID": 1,
       "key": "ABCD1234", "itemType": "Journal Article", "collectionPath": "Logic",
       "collectionOrderIndex": 0, "attachment": {"itemID": 2, "contentType": "application/pdf", "path": "storage:t.pdf"},
       "searchKeyword": "Turing 1936"},
      {"itemID": 3, "title": "", "key": "EMPTY000", "searchKeyword": "x"},
      {"itemID": 4, "title": "No key"}
    ]},
    {"library": "Group", "entries": [{"title": "Église", "key": "K2", "library": "Group", "itemType": "Book"}]}
  ])";
  auto items = DesktopSearch::zoteroItemsOf(groups);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].title, "On Computable Numbers");
  EXPECT_EQ(items[0].key, "ABCD1234");
  EXPECT_EQ(items[0].library, "ZOTERO_MY_LIBRARY");
  EXPECT_EQ(items[0].itemType, "Journal Article");
  EXPECT_EQ(items[0].matchText, "on computable numbers turing 1936");
  EXPECT_EQ(items[1].matchText, "église ");
  // Damaged or foreign JSON: what came before the damage, never a throw.
  EXPECT_EQ(DesktopSearch::zoteroItemsOf(groups.substr(0, groups.find("{\"itemID\": 3"))).size(), 1u);
  EXPECT_TRUE(DesktopSearch::zoteroItemsOf("{\"not\": \"groups\"}").empty());
  EXPECT_TRUE(DesktopSearch::zoteroItemsOf("").empty());
  EXPECT_TRUE(DesktopSearch::zoteroItemsOf(std::string(100000, '[')).empty());
}

}  // namespace
}  // namespace quorvi

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

}  // namespace
}  // namespace quorvi

// Matching of names against query patterns: words, case, diacritics, stars.
#include <gtest/gtest.h>

#include <algorithm>

#include "spotlight/metadata_query.h"
#include "spotlight/text_pattern.h"

namespace quorvi {
namespace {

TextPattern pattern(const std::string& quoted) {
  MetadataQuery query = MetadataQuery::parse("kMDItemFSName == " + quoted);
  EXPECT_TRUE(query.ok()) << quoted;
  return TextPattern((*query.disjunctiveForm())[0][0].value);
}

struct Case {
  const char* pattern;
  const char* name;
  bool matches;
};

TEST(TextPatternTest, WordPrefixes) {
  const std::vector<Case> cases = {
      {"'rep*'cdw", "Annual Report 2023.pdf", true},
      {"'rep*'cdw", "annual-report.txt", true},
      {"'rep*'cdw", "myreport.txt", false},
      {"'fin*'cdw", "reportFinal.md", true},
      {"'rep*'cdw", "PDFReport.txt", true},
      {"'pdf*'cdw", "PDFReport.txt", true},
      {"'dfr*'cdw", "PDFReport.txt", false},
      {"'2023*'cdw", "Annual Report 2023.pdf", true},
      {"'023*'cdw", "Annual Report 2023.pdf", false},
      {"'annual rep*'cdw", "Annual Report.pdf", true},
      {"'report'cdw", "annual report.txt", true},
      {"'report'cdw", "annual reports.txt", false},
      {"'report*'cdw", "", false},
      {"'*'cdw", "", true},
      {"'*port*'cdw", "myreport.txt", true},
      {"'*.txt'cdw", "myreport.txt", true},
      {"'*.txt'cd", "myreport.txt.gz", false},
      {"'*.txt'cdw", "myreport.txt.gz", true},  // ".txt" ends where the word "gz" starts
      {"'my*.txt'cdw", "myreport.txt", true},
      {"'rep*'", "report", true},
      {"'rep*'", "a report", false},
  };
  for (const auto& c : cases) EXPECT_EQ(pattern(c.pattern).matches(c.name), c.matches) << c.pattern << " on " << c.name;
}

TEST(TextPatternTest, CaseAndDiacriticsFoldOnlyWhenAsked) {
  const std::vector<Case> cases = {
      {"'cafe*'cdw", "Café Menu.txt", true},
      {"'CAFÉ*'cdw", "cafe menu.txt", true},
      {"'cafe*'cw", "Café Menu.txt", false},
      {"'cafe*'dw", "café", true},
      {"'CAF*'dw", "Café", false},
      {"'resume*'cdw", "Résumé.docx", true},
      {"'strasse*'cdw", "Straße.txt", true},
      {"'ÜBER*'cdw", "über.md", true},
      {"'uber*'cdw", "u\xCC\x88" "ber.md", true},  // u + combining diaeresis
      {"'αλφα*'cdw", "Άλφα.txt", true},
  };
  for (const auto& c : cases) EXPECT_EQ(pattern(c.pattern).matches(c.name), c.matches) << c.pattern << " on " << c.name;
}

TEST(TextPatternTest, ChineseCharactersEachBeginAWord) {
  const std::vector<Case> cases = {
      {"'报告*'cdw", "年度报告.pdf", true},
      {"'年度*'cdw", "年度报告.pdf", true},
      {"'报*'cdw", "Q3报告.xlsx", true},
      {"'q3*'cdw", "Q3报告.xlsx", true},
      {"'告书*'cdw", "报告.pdf", false},
      {"'报告'cdw", "年度报告书", true},
  };
  for (const auto& c : cases) EXPECT_EQ(pattern(c.pattern).matches(c.name), c.matches) << c.pattern << " on " << c.name;
}

TEST(TextPatternTest, NamesThatAreNotUtf8StillMatchByTheirValidParts) {
  EXPECT_TRUE(pattern("'rep*'cdw").matches("\xff report"));
  EXPECT_TRUE(pattern("'rep*'cdw").matches("\xff" "report"));  // after U+FFFD, a non-letter
  EXPECT_FALSE(pattern("'\xef\xbf\xbd*'cdw").matches("report"));
}

TEST(TextPatternTest, RequiredBytesNeverRejectAMatch) {
  // For each pattern and name that match, the lower-cased ASCII name holds
  // the pattern's required bytes, so the search's shortcut is sound.
  const std::vector<std::pair<const char*, const char*>> matching = {
      {"'Rep*'cdw", "Annual Report"},   {"'*PORT*'cdw", "myreport"},          {"'a*b*c'cdw", "axxbyyc"},
      {"'报告*'cdw", "年度报告"},         {"'cafe*'cdw", "Café Menu"},          {"'resume*'cdw", "re\xCC\x81sume\xCC\x81"},
      {"'strasse*'cdw", "Straße"},      {"'kelvin*'cdw", "\xE2\x84\xAA" "elvin"}, {"'pho*'cdw", "Phở bò"},
      {"'menu*'cdw", "Café Menu 报告"}};
  for (const auto& [quoted, name] : matching) {
    TextPattern p = pattern(quoted);
    ASSERT_TRUE(p.matches(name)) << quoted;
    const std::string& required = p.requiredLowercaseBytes();
    if (required.empty()) continue;
    std::string lowered = name, skeleton;
    for (char& c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    bool ascii = std::all_of(lowered.begin(), lowered.end(), [](char c) { return (c & 0x80) == 0; });
    asciiSkeleton(name, skeleton);
    if (ascii) EXPECT_NE(lowered.find(required), std::string::npos) << quoted;
    if (p.requiredBytesHoldInAnyText()) {
      EXPECT_NE(std::string(name).find(required), std::string::npos) << quoted;
    } else {
      EXPECT_NE(skeleton.find(required), std::string::npos) << quoted << " skeleton " << skeleton;
    }
  }
  std::string skeleton;
  asciiSkeleton("Café 报告 e\xCC\x81", skeleton);
  EXPECT_EQ(skeleton, "cafe \x01\x01 e");
  EXPECT_TRUE(pattern("'报告*'cdw").requiredBytesHoldInAnyText());
  EXPECT_FALSE(pattern("'rep*'cdw").requiredBytesHoldInAnyText());
  // Without diacritic folding a name's "é" is not an "e": no shortcut.
  EXPECT_TRUE(pattern("'café*'cw").requiredLowercaseBytes().empty());
}

}  // namespace
}  // namespace quorvi

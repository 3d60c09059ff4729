// The name prefilter's arena walk against a look at every record, over
// tables built in memory: ASCII, accented, decomposed and Chinese names,
// names whose raw bytes follow the match text, dead rows, several tables.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <utility>

#include "fileindex/file_table.h"
#include "fileindex/match_text.h"
#include "spotlight/metadata_query.h"
#include "spotlight/name_prefilter.h"
#include "spotlight/text_pattern.h"

namespace quorvi {
namespace {

using Hit = std::pair<const FileTable*, std::size_t>;

bool isAsciiText(std::string_view text) {
  for (unsigned char c : text) {
    if (c & 0x80) return false;
  }
  return true;
}

// The test a search made of every record before: the run in the match
// text, else, for a text that is not ASCII, in its skeleton.
bool recordMayMatch(const std::vector<const TextPattern*>& patterns, const FileTable& table, std::size_t row) {
  std::string_view text = table.matchText(row);
  for (const TextPattern* pattern : patterns) {
    const std::string& needle = pattern->requiredLowercaseBytes();
    if (needle.empty()) continue;
    if (memmem(text.data(), text.size(), needle.data(), needle.size())) continue;
    if (pattern->requiredBytesHoldInAnyText() || isAsciiText(text)) return false;
    std::string skeleton;
    asciiSkeleton(text, skeleton);
    if (!memmem(skeleton.data(), skeleton.size(), needle.data(), needle.size())) return false;
  }
  return true;
}

class NamePrefilterTest : public ::testing::Test {
 protected:
  NamePrefilterTest() : folders_(std::make_shared<FolderTree>()) {
    root_ = folders_->addRoot("/home/someone");
    folders_->finish();
  }

  // Names from words in every spelling the index meets, with a serial number.
  std::string generatedName(std::mt19937& random, int serial) {
    static const std::vector<std::string> words = {
        "Annual",  "report",   "REPORT",       "Zephyr",    "budget",  "2023",         "Café",     "crème",
        "résumé",  "cafe\u0301", "\uFB01nal",  "\u212Aelvin", "Über",  "ÉTÉ",          "naïve",    "报告",
        "年度",    "项目",     "日本語",       "Straße",    "İstanbul", "bad\xFFname", "q3",       "notes"};
    static const std::vector<std::string> joints = {" ", "-", "_", "", "."};
    std::string name;
    int count = 1 + static_cast<int>(random() % 3);
    for (int w = 0; w < count; ++w) {
      if (w > 0) name += joints[random() % joints.size()];
      name += words[random() % words.size()];
    }
    return name + " " + std::to_string(serial) + (random() % 3 ? ".txt" : "");
  }

  void append(FileTable::Builder& builder, const std::string& name, std::string matchText) {
    FileRow row;
    row.folder = root_;
    row.name = name;
    row.matchText = matchText;
    row.inode = ++inode_;
    builder.append(row);
  }

  // Tables of random sizes (one of them empty), about a tenth of the rows dead.
  FileSegments makeSegments(unsigned seed) {
    std::mt19937 random(seed);
    FileSegments segments;
    int serial = 0;
    for (std::size_t size : {400u, 0u, 37u, 900u}) {
      FileTable::Builder builder(folders_);
      for (std::size_t i = 0; i < size; ++i) {
        std::string name = generatedName(random, serial++);
        append(builder, name, matchTextOfName(name));
        if (random() % 50 == 0) {
          // A match text that is not the name's: the name's bytes follow the
          // NUL, and a run there, or running on into the next record's text,
          // is not in either text.
          append(builder, "old zeph", "renamed");
          append(builder, "x", "hyr budget");
        }
      }
      Segment segment{builder.finish(), nullptr, 0};
      auto dead = std::make_shared<std::vector<uint64_t>>((segment->size() + 63) / 64, 0);
      for (std::size_t row = 0; row < segment->size(); ++row) {
        if (random() % 10 == 0) {
          (*dead)[row >> 6] |= uint64_t{1} << (row & 63);
          ++segment.deadCount;
        }
      }
      segment.dead = std::move(dead);
      segments.push_back(std::move(segment));
    }
    return segments;
  }

  std::shared_ptr<FolderTree> folders_;
  uint32_t root_ = 0;
  uint64_t inode_ = 0;
};

std::vector<TextPattern> patternsOf(const std::string& query) {
  MetadataQuery parsed = MetadataQuery::parse(query);
  EXPECT_TRUE(parsed.ok()) << query;
  std::vector<TextPattern> patterns;
  auto conjunctions = parsed.disjunctiveForm();
  for (const auto& comparison : (*conjunctions)[0]) patterns.emplace_back(comparison.value);
  return patterns;
}

TEST_F(NamePrefilterTest, TheFlagSaysWhetherTheMatchTextIsAscii) {
  FileSegments segments = makeSegments(3);
  std::size_t notAscii = 0;
  for (const Segment& segment : segments) {
    for (std::size_t row = 0; row < segment->size(); ++row) {
      EXPECT_EQ(segment->matchTextIsAscii(row), isAsciiText(segment->matchText(row))) << segment->matchText(row);
      if (!segment->matchTextIsAscii(row)) ++notAscii;
    }
  }
  EXPECT_GT(notAscii, 100u);
}

TEST_F(NamePrefilterTest, ArenaWalkFindsWhatALookAtEveryRecordFinds) {
  const std::vector<std::string> queries = {
      "kMDItemFSName == 'zep*'cdw",
      "kMDItemFSName == 'cafe*'cdw",  // "Café", "cafe" + combining accent
      "kMDItemFSName == 'café*'cdw",
      "kMDItemFSName == 'creme*'cdw",
      "kMDItemFSName == 'final*'cdw",  // the ligature folds to "fi"
      "kMDItemFSName == 'kelvin*'cdw",
      "kMDItemFSName == 'uber*'cdw",
      "kMDItemFSName == 'strasse*'cdw",
      "kMDItemFSName == 'istanbul*'cdw",
      "kMDItemFSName == 'über*'c",  // no run: every live record
      "kMDItemFSName == '报告*'cdw",  // found as is in any text
      "kMDItemFSName == 'baogao*'cdw",  // pinyin in the match text
      "kMDItemFSName == 'hyr*'cdw",
      "kMDItemFSName == 'zeph*'cdw",
      "kMDItemFSName == 'e*'cdw",
      "kMDItemFSName == '*port*'cd",
      "kMDItemFSName == 'qqqxqqq*'cdw",
      "kMDItemFSName == 'rep*'cdw && kMDItemFSName == '2023*'cdw",
      "kMDItemFSName == '2023*'cdw && kMDItemFSName == 'résumé*'cdw",
      "kMDItemFSName == '年度*'cdw && kMDItemFSName == 'budget*'cdw",
      "kMDItemFSName == 'notes*'cdw && kMDItemFSName == 'ete*'cdw",
  };
  std::size_t matchingTotal = 0;
  for (unsigned seed : {1u, 2u}) {
    FileSegments segments = makeSegments(seed);
    for (const auto& query : queries) {
      std::vector<TextPattern> patterns = patternsOf(query);
      std::vector<const TextPattern*> pointers;
      for (const auto& pattern : patterns) pointers.push_back(&pattern);
      NamePrefilter prefilter(pointers);

      std::vector<Hit> expected;
      std::size_t matching = 0;
      for (const Segment& segment : segments) {
        for (std::size_t row = 0; row < segment->size(); ++row) {
          if (!segment.isLive(row)) continue;
          bool mayMatch = recordMayMatch(pointers, *segment, row);
          if (mayMatch) expected.emplace_back(segment.table.get(), row);
          EXPECT_EQ(prefilter.mayMatch(*segment, row), mayMatch) << query << ": " << segment->matchText(row);
          // Never skips a name the patterns match (of the records whose
          // match text is their name's).
          if (segment->matchText(row) != matchTextOfName(segment->name(row))) continue;
          bool matches = true;
          for (const auto& pattern : patterns) matches = matches && pattern.matches(segment->name(row));
          if (matches) {
            ++matching;
            EXPECT_TRUE(mayMatch) << query << ": " << segment->name(row);
          }
        }
      }
      std::vector<Hit> found;
      prefilter.forEachCandidate(segments, [&](const FileTable& table, std::size_t row) {
        found.emplace_back(&table, row);
        return true;
      });
      EXPECT_EQ(found, expected) << query;
      // Every query but the miss has records to compare.
      if (query.find("qqq") == std::string::npos) {
        EXPECT_FALSE(expected.empty()) << query;
      }
      matchingTotal += matching;

      // Stopping early gives the first records, in order.
      std::vector<Hit> firstFew;
      prefilter.forEachCandidate(segments, [&](const FileTable& table, std::size_t row) {
        firstFew.emplace_back(&table, row);
        return firstFew.size() < 5;
      });
      expected.resize(std::min<std::size_t>(expected.size(), 5));
      EXPECT_EQ(firstFew, expected) << query;
    }
  }
  EXPECT_GT(matchingTotal, 100u);
}

}  // namespace
}  // namespace quorvi

// The matcher against a plain, unoptimised transcription of its rules (one
// byte per character, fresh rows per pass, a literal bisection), over many
// generated patterns, texts and settings. Any shortcut in the real search that
// changes a score or a range shows up here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "fuse/fuse.h"

namespace quorvi {
namespace {

struct Settings {
  long location, distance;
  double threshold;
};

struct Reference {
  Settings settings;
  long len = 0;

  double score(long errors, long x) const {
    const double accuracy = static_cast<double>(errors) / static_cast<double>(len);
    const long proximity = std::labs(settings.location - x);
    if (settings.distance == 0) return proximity == 0 ? accuracy : 1.0;
    return accuracy + static_cast<double>(proximity) / static_cast<double>(settings.distance);
  }

  FuseMatch search(const std::string& pattern, const std::string& text) {
    len = static_cast<long>(pattern.size());
    const long count = static_cast<long>(text.size());
    if (pattern == text) return {0.0, {{0, count - 1}}};
    std::vector<int> mask(static_cast<std::size_t>(count), 0);
    double threshold = settings.threshold;
    long from = std::max(settings.location, 0L);
    while (from <= count) {
      const auto found = text.find(pattern, static_cast<std::size_t>(from));
      if (found == std::string::npos) break;
      const long p = static_cast<long>(found);
      threshold = std::min(threshold, score(0, p));
      for (long k = p; k < p + len; ++k) mask[k] = 1;
      from = p + len;
    }
    auto alphabet = [&](char c) {
      int64_t bits = 0;
      for (long i = 0; i < len; ++i)
        if (pattern[i] == c && len - i - 1 < 64) bits |= static_cast<int64_t>(uint64_t{1} << (len - i - 1));
      return bits;
    };
    const int64_t fullMatch = len - 1 < 64 ? static_cast<int64_t>(uint64_t{1} << (len - 1)) : 0;
    double best = 1.0;
    long binMax = len + count;
    std::vector<int64_t> previous;
    auto at = [](const std::vector<int64_t>& row, long j) { return j >= 0 && j < (long)row.size() ? row[j] : 0; };
    for (long i = 0; i < std::min(len, 63L); ++i) {
      long binMin = 0, binMid = binMax;
      while (binMin < binMid) {
        if (score(i, settings.location + binMid) <= threshold)
          binMin = binMid;
        else
          binMax = binMid;
        binMid = (binMax - binMin) / 2 + binMin;
      }
      const long start = std::max(1L, settings.location - binMid + 1);
      const long finish = std::min(settings.location + binMid, count) + len;
      std::vector<int64_t> row(static_cast<std::size_t>(std::max(finish + 2, 0L)), 0);
      if (finish + 1 >= 0) row[finish + 1] = static_cast<int64_t>((uint64_t{1} << i) - 1);
      for (long j = finish; j >= start; --j) {
        const int64_t charMatch = j - 1 < count ? alphabet(text[j - 1]) : 0;
        if (charMatch != 0) mask[j - 1] = 1;
        uint64_t value = ((static_cast<uint64_t>(row[j + 1]) << 1) | 1) & static_cast<uint64_t>(charMatch);
        if (i != 0)
          value |= (((static_cast<uint64_t>(at(previous, j + 1) | at(previous, j))) << 1) | 1) |
                   static_cast<uint64_t>(at(previous, j + 1));
        row[j] = static_cast<int64_t>(value);
        if (row[j] & fullMatch) {
          const double s = score(i, j - 1);
          if (s <= threshold) {
            threshold = best = s;
            if (j - 1 <= settings.location) break;
          }
        }
      }
      if (score(i + 1, settings.location) > threshold) break;
      previous = row;
    }
    std::vector<CharacterRange> ranges;
    long runStart = -1;
    for (long k = 0; k <= count; ++k) {
      const bool on = k < count && mask[k];
      if (on && runStart < 0) runStart = k;
      if (!on && runStart >= 0) ranges.push_back({runStart, k - 1}), runStart = -1;
    }
    return {best, ranges};
  }
};

std::string randomText(std::mt19937& random, long length, const std::string& letters) {
  std::string text;
  for (long i = 0; i < length; ++i) text += letters[random() % letters.size()];
  return text;
}

TEST(FuseReferenceTest, AgreesWithThePlainRulesOnGeneratedCases) {
  std::mt19937 random(20261121);
  const long locations[] = {0, 0, 0, 1, 3, 7, 20, 45, -2};
  const long distances[] = {100, 100, 10, 3, 1, 0, -4};
  const double thresholds[] = {0.6, 0.6, 0.3, 0.0, 0.8, 1.0, 0.45};
  for (int round = 0; round < 6000; ++round) {
    const Settings settings{locations[random() % 9], distances[random() % 7], thresholds[random() % 7]};
    const std::string letters = round % 3 == 0 ? "ab" : "abcde -";
    const long patternLength = round % 50 == 0 ? 60 + static_cast<long>(random() % 12) : 1 + static_cast<long>(random() % 8);
    const std::string pattern = randomText(random, patternLength, letters);
    std::string text = randomText(random, static_cast<long>(random() % 40), letters);
    if (round % 4 == 0 && !text.empty()) text.insert(random() % text.size(), pattern);  // plant an occurrence
    if (round % 97 == 0) text = pattern;

    Reference reference{settings};
    const FuseMatch expected = reference.search(pattern, text);
    Fuse fuse(settings.location, settings.distance, settings.threshold, 32, true, false);
    const auto actual = fuse.search(pattern, text);
    ASSERT_TRUE(actual);
    ASSERT_EQ(actual->score, expected.score) << "round " << round << " pattern '" << pattern << "' text '" << text
                                             << "' location " << settings.location << " distance "
                                             << settings.distance << " threshold " << settings.threshold;
    ASSERT_EQ(actual->ranges, expected.ranges) << "round " << round << " pattern '" << pattern << "' text '"
                                               << text << "'";
    // The list search keeps exactly the texts that score below 1.0.
    const auto listed = fuse.search(pattern, std::vector<std::string>{text});
    ASSERT_EQ(listed.size(), expected.score != 1.0 ? 1u : 0u) << "round " << round;
    if (!listed.empty()) {
      ASSERT_EQ(listed[0].ranges, expected.ranges) << "round " << round;
    }
  }
}

}  // namespace
}  // namespace quorvi

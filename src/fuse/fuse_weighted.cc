// The weighted (and optionally tokenised) search over Fuseable records.
#include <algorithm>

#include "fuse/characters.h"
#include "fuse/fuse.h"

namespace quorvi {

namespace {

// Splits at every single space; empty words (from repeated spaces) make no
// pattern and are not counted.
std::vector<std::string> splitAtSpaces(const std::string& text) {
  std::vector<std::string> words;
  std::size_t begin = 0;
  while (begin <= text.size()) {
    std::size_t end = text.find(' ', begin);
    if (end == std::string::npos) end = text.size();
    if (end > begin) words.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return words;
}

void addRanges(std::vector<CharacterRange>& into, const std::vector<CharacterRange>& ranges) {
  for (const CharacterRange& range : ranges)
    if (std::find(into.begin(), into.end(), range) == into.end()) into.push_back(range);
}

// The weighted form of a property's score. A perfect match on a full-weight
// property keeps 0.001 so that it never scores exactly 0; a perfect match on
// any other weight stays 0.
double weightedScore(double score, double weight) {
  const double factor = weight == 1.0 ? 1.0 : 1.0 - weight;
  return (score == 0.0 && factor == 1.0 ? 0.001 : score) * factor;
}

}  // namespace

std::vector<FusePattern> Fuse::wordPatterns(const FusePattern& pattern) const {
  std::vector<FusePattern> words;
  if (!tokenize) return words;
  for (const std::string& word : splitAtSpaces(pattern.text))
    if (std::optional<FusePattern> compiled = createPattern(word)) words.push_back(std::move(*compiled));
  return words;
}

std::optional<FuseItemResult> Fuse::searchItem(const FusePattern& pattern, const std::vector<FusePattern>& words,
                                               const Fuseable& item, long index) const {
  thread_local CharacterString text;
  FuseItemResult result{index, 0.0, {}};
  double total = 0.0;
  for (FuseProperty& property : item.properties()) {
    text.assign(property.name, !isCaseSensitive);
    FuseMatch match = searchCharacters(pattern, text, tokenize);
    if (tokenize) {
      double sum = match.score;
      for (const FusePattern& word : words) {
        FuseMatch wordMatch = searchCharacters(word, text, true);
        sum += wordMatch.score;
        addRanges(match.ranges, wordMatch.ranges);
      }
      match.score = sum / static_cast<double>(words.size() + 1);
    }
    if (match.score == 1.0) continue;
    const double weighted = weightedScore(match.score, property.weight);
    total += weighted;
    result.results.push_back({std::move(property.name), weighted, std::move(match.ranges)});
  }
  if (result.results.empty()) return std::nullopt;
  result.score = total / static_cast<double>(result.results.size());
  return result;
}

std::vector<FuseItemResult> Fuse::search(std::string_view pattern, const std::vector<FuseableRef>& items) const {
  std::vector<FuseItemResult> results;
  const std::optional<FusePattern> compiled = createPattern(pattern);
  if (!compiled) return results;
  const std::vector<FusePattern> words = wordPatterns(*compiled);
  for (std::size_t index = 0; index < items.size(); ++index) {
    if (!items[index]) continue;
    if (auto result = searchItem(*compiled, words, *items[index], static_cast<long>(index)))
      results.push_back(std::move(*result));
  }
  return results;
}

}  // namespace quorvi

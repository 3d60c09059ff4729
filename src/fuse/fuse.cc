#include "fuse/fuse.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "common/dispatch.h"
#include "fuse/characters.h"
#include "fuse/fuse_utilities.h"

namespace quorvi {

namespace {

CharacterString& textScratch() {
  thread_local CharacterString text;
  return text;
}

}  // namespace

Fuse::Fuse(long location, long distance, double threshold, long maxPatternLength, bool isCaseSensitive,
           bool tokenize)
    : location(location),
      distance(distance),
      threshold(threshold),
      maxPatternLength(maxPatternLength),
      isCaseSensitive(isCaseSensitive),
      tokenize(tokenize) {}

std::shared_ptr<DispatchQueue> Fuse::searchQueue() {
  std::call_once(searchQueueOnce_, [this] { searchQueue_ = DispatchQueue::makeConcurrent("fuse.search.queue"); });
  return searchQueue_;
}

std::unique_ptr<Fuse> Fuse::copySettings() const {
  return std::make_unique<Fuse>(location, distance, threshold, maxPatternLength, isCaseSensitive, tokenize);
}

std::optional<FusePattern> Fuse::createPattern(std::string_view text) const {
  if (text.empty()) return std::nullopt;
  std::string folded;
  foldText(text, !isCaseSensitive, folded);
  if (folded.empty()) return std::nullopt;
  return makeFusePattern(std::move(folded));
}

double Fuse::score(long errors, long x, long patternLength) const {
  return scoreAtProximity(errors, std::fabs(static_cast<double>(location) - static_cast<double>(x)), patternLength);
}


std::optional<FuseMatch> Fuse::search(const std::optional<FusePattern>& pattern, std::string_view text) const {
  if (!pattern) return std::nullopt;
  CharacterString& characters = textScratch();
  characters.assign(text, !isCaseSensitive);
  return searchCharacters(*pattern, characters, true);
}

std::optional<FuseMatch> Fuse::search(std::string_view pattern, std::string_view text) const {
  return search(createPattern(pattern), text);
}

std::vector<FuseStringResult> Fuse::search(std::string_view pattern, const std::vector<std::string>& texts) const {
  std::vector<FuseStringResult> results;
  const std::optional<FusePattern> compiled = createPattern(pattern);
  if (!compiled) return results;
  for (std::size_t index = 0; index < texts.size(); ++index)
    if (auto result = searchListed(*compiled, texts[index], static_cast<long>(index)))
      results.push_back(std::move(*result));
  return results;
}

std::optional<FuseStringResult> Fuse::searchListed(const FusePattern& pattern, std::string_view text,
                                                   long index) const {
  CharacterString& characters = textScratch();
  characters.assign(text, !isCaseSensitive);
  FuseMatch match = searchCharacters(pattern, characters, false);
  if (match.score == 1.0) return std::nullopt;
  return FuseStringResult{index, match.score, std::move(match.ranges)};
}

}  // namespace quorvi

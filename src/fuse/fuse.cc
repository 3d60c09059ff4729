#include "fuse/fuse.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "common/dispatch.h"
#include "fuse/characters.h"
#include "fuse/fuse_utilities.h"

namespace quorvi {

namespace {

// The bitap passes stop before the pass whose seed (1 << i) - 1 would not fit
// in a signed 64-bit integer; such a search returns what it has found so far.
constexpr long kLastPass = 62;

// Positions beyond this are clamped in index arithmetic only (never in scores):
// far larger than any text, small enough that sums cannot overflow.
constexpr long kPositionLimit = 1L << 48;

// Per-thread buffers of the bitap passes, reused across searches.
struct BitapScratch {
  std::vector<uint64_t> bits;  // alphabet entry of each text character
  std::vector<uint8_t> mask;   // characters marked as part of a match
  std::vector<uint64_t> row;
  std::vector<uint64_t> previous;
};

BitapScratch& bitapScratch() {
  thread_local BitapScratch scratch;
  return scratch;
}

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

double Fuse::scoreAtProximity(long errors, double proximity, long patternLength) const {
  const double accuracy = static_cast<double>(errors) / static_cast<double>(patternLength);
  if (distance == 0) return proximity == 0 ? accuracy : 1.0;
  return accuracy + proximity / static_cast<double>(distance);
}

std::optional<FuseMatch> Fuse::search(const std::optional<FusePattern>& pattern, std::string_view text) const {
  if (!pattern) return std::nullopt;
  CharacterString& characters = textScratch();
  characters.assign(text, !isCaseSensitive);
  return searchCharacters(*pattern, characters);
}

std::optional<FuseMatch> Fuse::search(std::string_view pattern, std::string_view text) const {
  return search(createPattern(pattern), text);
}

std::vector<FuseStringResult> Fuse::search(std::string_view pattern, const std::vector<std::string>& texts) const {
  std::vector<FuseStringResult> results;
  const std::optional<FusePattern> compiled = createPattern(pattern);
  if (!compiled) return results;
  for (std::size_t index = 0; index < texts.size(); ++index) {
    std::optional<FuseMatch> match = search(compiled, texts[index]);
    if (match && match->score != 1.0)
      results.push_back({static_cast<long>(index), match->score, std::move(match->ranges)});
  }
  return results;
}

FuseMatch Fuse::searchCharacters(const FusePattern& pattern, const CharacterString& text) const {
  const long count = static_cast<long>(text.count());
  const long len = pattern.len;
  if (text.text() == pattern.text) return {0.0, {{0, count - 1}}};

  BitapScratch& scratch = bitapScratch();
  std::vector<uint8_t>& mask = scratch.mask;
  mask.assign(static_cast<std::size_t>(count), 0);
  double currentThreshold = threshold;

  // Every exact occurrence from location onward tightens the threshold and is marked.
  for (long p = FuseUtilities::findLiteral(pattern, text, location); p >= 0;
       p = FuseUtilities::findLiteral(pattern, text, p + len)) {
    currentThreshold = std::min(currentThreshold, score(0, p, len));
    std::memset(mask.data() + p, 1, static_cast<std::size_t>(len));
  }

  std::vector<uint64_t>& bits = scratch.bits;
  bits.resize(static_cast<std::size_t>(count));
  if (text.isSingleByte()) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text.text().data());
    for (long k = 0; k < count; ++k) bits[k] = pattern.asciiBits[bytes[k]];
  } else {
    for (long k = 0; k < count; ++k) bits[k] = pattern.bitsOf(text.at(static_cast<std::size_t>(k)));
  }

  const uint64_t fullMatch = static_cast<uint64_t>(pattern.mask);
  const long at = std::clamp(location, -kPositionLimit, kPositionLimit);
  double bestScore = 1.0;
  long binMax = len + count;
  long previousFinish = -1;  // previous row holds previousFinish + 2 entries; none yet
  const long passes = std::min(len, kLastPass + 1);
  for (long i = 0; i < passes; ++i) {
    // Bisect for the farthest reach from location that could still score within the threshold.
    long binMin = 0;
    long binMid = binMax;
    while (binMin < binMid) {
      if (scoreAtProximity(i, static_cast<double>(binMid), len) <= currentThreshold)
        binMin = binMid;
      else
        binMax = binMid;
      binMid = (binMax - binMin) / 2 + binMin;
    }
    const long start = std::max(1L, at - binMid + 1);
    const long finish = std::min(at + binMid, count) + len;

    std::vector<uint64_t>& row = scratch.row;
    std::vector<uint64_t>& previous = scratch.previous;
    const long rowSize = std::max(finish + 2, 0L);
    if (static_cast<long>(row.size()) < rowSize) row.resize(static_cast<std::size_t>(rowSize));
    if (static_cast<long>(previous.size()) < rowSize) previous.resize(static_cast<std::size_t>(rowSize));
    std::fill_n(row.begin(), rowSize, 0);
    // A previous row shorter than this one reads as zeros beyond its end.
    if (i != 0 && finish > previousFinish)
      std::fill(previous.begin() + std::max(previousFinish + 2, 0L), previous.begin() + rowSize, 0);
    if (rowSize > 0) row[finish + 1] = (uint64_t{1} << i) - 1;

    for (long j = finish; j >= start; --j) {
      const uint64_t charMatch = j - 1 < count ? bits[j - 1] : 0;
      if (charMatch != 0) mask[j - 1] = 1;
      uint64_t value = ((row[j + 1] << 1) | 1) & charMatch;
      if (i != 0) value |= (((previous[j + 1] | previous[j]) << 1) | 1) | previous[j + 1];
      row[j] = value;
      if (value & fullMatch) {
        const double candidate = score(i, j - 1, len);
        if (candidate <= currentThreshold) {
          currentThreshold = candidate;
          bestScore = candidate;
          // A match before or at location cannot be bettered further down the row.
          if (j - 1 <= location) break;
        }
      }
    }
    if (scoreAtProximity(i + 1, 0.0, len) > currentThreshold) break;
    std::swap(row, previous);
    previousFinish = finish;
  }
  return {bestScore, FuseUtilities::findRanges(mask)};
}

}  // namespace quorvi

// The bitap search of one text: the exact-equality shortcut, the literal
// pre-pass over every exact occurrence from location, and the passes with 0, 1,
// 2, ... errors, each over the reach that can still score within the current
// threshold.
#include <algorithm>
#include <cmath>

#include "fuse/characters.h"
#include "fuse/fuse.h"
#include "fuse/fuse_utilities.h"

namespace quorvi {

namespace {

// The passes stop before the pass whose seed (1 << i) - 1 would not fit in a
// signed 64-bit integer; such a search returns what it has found so far.
constexpr long kLastPass = 62;

// Locations beyond this are clamped in index arithmetic only (never in
// scores): far larger than any text, small enough that sums cannot overflow.
constexpr long kPositionLimit = 1L << 48;

// Per-thread buffers, reused across searches.
struct BitapScratch {
  std::vector<uint64_t> bits;      // alphabet entry of each character; zeros past the end
  std::vector<uint64_t> row;
  std::vector<uint64_t> previous;
  std::vector<long> occurrences;   // literal occurrences
  std::vector<std::pair<long, long>> scanned;  // j intervals the passes walked
};

BitapScratch& bitapScratch() {
  thread_local BitapScratch scratch;
  return scratch;
}

// The match mask: every literal occurrence, and every character of the pattern
// that a pass walked over.
std::vector<CharacterRange> rangesOf(BitapScratch& scratch, long count, long len) {
  std::vector<uint8_t> mask(static_cast<std::size_t>(count), 0);
  for (long p : scratch.occurrences) std::fill_n(mask.begin() + p, len, 1);
  // The passes mostly walk nested stretches; mark their union once.
  auto& walked = scratch.scanned;
  std::sort(walked.begin(), walked.end());
  const uint64_t* const bits = scratch.bits.data();
  long markedUpTo = 0;  // j below this is done
  for (auto [low, high] : walked) {
    for (long j = std::max(low, markedUpTo); j <= high && j - 1 < count; ++j)
      if (bits[j - 1] != 0) mask[j - 1] = 1;
    markedUpTo = std::max(markedUpTo, high + 1);
  }
  return FuseUtilities::findRanges(mask);
}

}  // namespace

long Fuse::reachOfPass(long errors, long len, double currentThreshold, long& binMax) const {
  long binMin = 0;
  long binMid = binMax;
  if (distance <= 0) {
    while (binMin < binMid) {
      if (scoreAtProximity(errors, static_cast<double>(binMid), len) <= currentThreshold)
        binMin = binMid;
      else
        binMax = binMid;
      binMid = (binMax - binMin) / 2 + binMin;
    }
    return binMid;
  }
  // With a positive distance the score grows monotonically with the reach, so
  // the bisection ends at the largest reach within the threshold, or at bin max
  // itself when that is within (bin max then stays, else it ends one beyond).
  const long widest = widestReach(errors, len, currentThreshold);
  if (widest >= binMax) return binMax;
  binMax = widest + 1;
  return widest;
}

long Fuse::widestReach(long errors, long len, double currentThreshold) const {
  // Searches of a list ask the same questions over and over: remember the
  // answers of this thread's last settings.
  struct Remembered {
    double threshold = -1;
    long len = -1, distance = 0, reach = 0;
  };
  thread_local Remembered remembered[kLastPass + 1];
  Remembered& slot = remembered[errors];
  if (slot.threshold == currentThreshold && slot.len == len && slot.distance == distance) return slot.reach;

  const double accuracy = static_cast<double>(errors) / static_cast<double>(len);
  const double perStep = static_cast<double>(distance);
  auto fits = [&](long reach) { return accuracy + static_cast<double>(reach) / perStep <= currentThreshold; };
  // Start from the closed-form estimate and settle it with the exact comparison.
  const double estimate = std::floor((currentThreshold - accuracy) * perStep);
  constexpr long kFar = 1L << 50;
  long reach = !(estimate >= 0) ? 0 : estimate >= static_cast<double>(kFar) ? kFar : static_cast<long>(estimate);
  while (reach < kFar && fits(reach + 1)) ++reach;
  while (reach > 0 && !fits(reach)) --reach;
  slot = {currentThreshold, len, distance, reach};
  return reach;
}

FuseMatch Fuse::searchCharacters(const FusePattern& pattern, const CharacterString& text, bool rangesOfMisses) const {
  const long count = static_cast<long>(text.count());
  const long len = pattern.len;
  if (text.text() == pattern.text) return {0.0, {{0, count - 1}}};

  BitapScratch& scratch = bitapScratch();
  scratch.occurrences.clear();
  scratch.scanned.clear();
  double currentThreshold = threshold;
  for (long p = FuseUtilities::findLiteral(pattern, text, location); p >= 0;
       p = FuseUtilities::findLiteral(pattern, text, p + len)) {
    currentThreshold = std::min(currentThreshold, score(0, p, len));
    scratch.occurrences.push_back(p);
  }

  std::vector<uint64_t>& bits = scratch.bits;
  bits.resize(static_cast<std::size_t>(count + len + 1));
  std::fill(bits.begin() + count, bits.end(), 0);
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
  std::vector<uint64_t>& row = scratch.row;
  std::vector<uint64_t>& previous = scratch.previous;
  if (static_cast<long>(row.size()) < count + len + 2) {
    row.resize(static_cast<std::size_t>(count + len + 2));
    previous.resize(row.size());
  }
  // What the previous row holds: explicit entries [low, high] in its buffer and,
  // with a tail, its seed at every j in (count, finish + 1] (unwritten). Every
  // other entry reads as zero, as in a fresh row.
  struct RowShape {
    long low = 0, high = -1, finish = -1;
    bool tail = false;
    uint64_t seed = 0;
  } last;
  const long passes = std::min(len, kLastPass + 1);
  for (long i = 0; i < passes; ++i) {
    const long binMid = reachOfPass(i, len, currentThreshold, binMax);
    const long start = std::max(1L, at - binMid + 1);
    const long finish = std::min(at + binMid, count) + len;
    const uint64_t seed = (uint64_t{1} << i) - 1;
    if (finish < start) {  // nothing in reach: the row holds only its seed
      if (finish >= -1) row[finish + 1] = seed;
      last = {finish + 1, finish + 1, finish, false, seed};
      if (scoreAtProximity(i + 1, 0.0, len) > currentThreshold) break;
      std::swap(row, previous);
      continue;
    }
    // Past the end of the text no character matches, so there every entry of
    // a row is its seed, as long as the previous row reached as far. Such a
    // tail is left unwritten and the walk starts at the end of the text.
    const bool tail = finish > count && (i == 0 || (last.tail && finish <= last.finish));
    const long top = tail ? count : finish;
    if (i != 0) {
      // Give the previous row's unwritten entries in reach their values.
      auto fill = [&](long from, long to) {
        for (long k = from; k <= to; ++k)
          previous[k] = last.tail && k > count && k <= last.finish + 1 ? last.seed : 0;
      };
      fill(start, std::min(last.low - 1, top + 1));
      fill(std::max(last.high + 1, start), top + 1);
    }
    uint64_t value = seed;
    // Raw pointers: stores into the row must not make the compiler reload the buffers.
    uint64_t* const rowAt = row.data();
    const uint64_t* const previousAt = previous.data();
    const uint64_t* const bitsAt = bits.data();
    rowAt[top + 1] = value;
    long stoppedAt = start;  // where the walk down the row ended
    if (i == 0) {
      for (long j = top; j >= start; --j) {
        value = ((value << 1) | 1) & bitsAt[j - 1];
        rowAt[j] = value;
        if ((value & fullMatch) == 0) continue;
        const double candidate = scoreAtProximity(0, std::fabs(static_cast<double>(location) - (j - 1)), len);
        if (candidate > currentThreshold) continue;
        currentThreshold = bestScore = candidate;
        // A match at or before location cannot be bettered further down the row.
        if (j - 1 <= location) {
          stoppedAt = j;
          break;
        }
      }
    } else {
      uint64_t above = previousAt[top + 1];
      for (long j = top; j >= start; --j) {
        const uint64_t here = previousAt[j];
        value = (((value << 1) | 1) & bitsAt[j - 1]) | (((above | here) << 1) | 1) | above;
        above = here;
        rowAt[j] = value;
        if ((value & fullMatch) == 0) continue;
        const double candidate = scoreAtProximity(i, std::fabs(static_cast<double>(location) - (j - 1)), len);
        if (candidate > currentThreshold) continue;
        currentThreshold = bestScore = candidate;
        if (j - 1 <= location) {
          stoppedAt = j;
          break;
        }
      }
    }
    scratch.scanned.emplace_back(stoppedAt, top);
    last = {stoppedAt, top + 1, finish, tail, seed};
    if (scoreAtProximity(i + 1, 0.0, len) > currentThreshold) break;
    std::swap(row, previous);
  }
  if (bestScore == 1.0 && !rangesOfMisses) return {bestScore, {}};
  return {bestScore, rangesOf(scratch, count, len)};
}

}  // namespace quorvi

#include "fileindex/match_logic.h"

#include <immintrin.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstring>
#include <unordered_set>

namespace quorvi {

namespace {

// The white-space set queries split at: tab and the space separators (Zs).
bool isQueryWhiteSpace(UChar32 c) { return c == 0x09 || (c >= 0 && u_charType(c) == U_SPACE_SEPARATOR); }

std::string replacingFullwidthBars(std::string_view query) {
  std::string text;
  text.reserve(query.size());
  for (std::size_t i = 0; i < query.size(); ++i) {
    if (query.compare(i, 3, "\xEF\xBD\x9C") == 0) {
      text.push_back('|');
      i += 2;
    } else {
      text.push_back(query[i]);
    }
  }
  return text;
}

std::vector<std::string_view> splitTerms(std::string_view text) {
  std::vector<std::string_view> terms;
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  int32_t length = static_cast<int32_t>(std::min<std::size_t>(text.size(), INT32_MAX));
  int32_t termStart = 0;
  for (int32_t i = 0; i < length;) {
    int32_t start = i;
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (isQueryWhiteSpace(c)) {
      if (start > termStart) terms.push_back(text.substr(termStart, start - termStart));
      termStart = i;
    }
  }
  if (length > termStart) terms.push_back(text.substr(termStart, length - termStart));
  return terms;
}

bool contains(const char* text, const CStringRef& needle) {
  return !needle.isEmpty() && std::strstr(text, needle.cstring()) != nullptr;
}

// The needles whose occurrences every hit must contain one of: a group's
// word, or all the alternatives of an OR group.
struct Anchor {
  std::vector<std::string_view> needles;
};

// How often the needle occurs near the front of the first segment's arena:
// a cheap estimate of how many candidates it would bring.
std::size_t sampledOccurrences(const FileSegments& segments, std::string_view needle) {
  constexpr std::size_t kSampleBytes = 128 * 1024;
  if (segments.empty()) return 0;
  std::string_view arena = segments.front()->arena();
  const char* position = arena.data();
  const char* const end = arena.data() + std::min(arena.size(), kSampleBytes);
  std::size_t count = 0;
  while (const char* hit = findBytes(position, end, needle)) {
    ++count;
    position = hit + 1;
  }
  return count;
}

// Picks the group to drive the search: of the AND words, the one seen least
// often in a sample of the arena (the longer on a tie); else the OR group
// whose shortest alternative is longest. Returns false when no record can
// match (a group without any usable needle).
bool chooseAnchor(const FileSegments& segments, const std::vector<MatchLogicQuery>& groups, Anchor& anchor) {
  const MatchLogicQuery* best = nullptr;
  std::size_t bestCount = SIZE_MAX, bestLength = 0;
  for (const auto& group : groups) {
    if (group.orQuery) continue;
    if (group.andQuery.isEmpty()) return false;
    std::string_view word = group.andQuery.view();
    std::size_t count = sampledOccurrences(segments, word);
    if (count < bestCount || (count == bestCount && word.size() > bestLength)) {
      best = &group;
      bestCount = count;
      bestLength = word.size();
    }
  }
  if (best) {
    anchor.needles = {best->andQuery.view()};
    return true;
  }
  std::size_t bestShortest = 0;
  for (const auto& group : groups) {
    std::size_t shortest = SIZE_MAX;
    std::size_t usable = 0;
    for (const auto& alternative : *group.orQuery) {
      if (alternative.isEmpty()) continue;
      shortest = std::min(shortest, alternative.view().size());
      ++usable;
    }
    if (usable == 0) return false;
    if (shortest > bestShortest) bestShortest = shortest, best = &group;
  }
  for (const auto& alternative : *best->orQuery) {
    if (!alternative.isEmpty()) anchor.needles.push_back(alternative.view());
  }
  return true;
}

class HitList {
 public:
  bool add(const FileSegments& segments, uint32_t segment, uint32_t row) {
    const FileTable& table = *segments[segment];
    FileReference reference{table.device(row), table.inode(row), {}};
    if (hits_.size() < 32) {
      for (const auto& hit : hits_) {
        const FileTable& other = *segments[hit.segment];
        if (other.inode(hit.row) == reference.inode && other.device(hit.row) == reference.device) return false;
      }
    } else {
      if (seen_.empty()) {
        for (const auto& hit : hits_) {
          const FileTable& other = *segments[hit.segment];
          seen_.insert(FileReference{other.device(hit.row), other.inode(hit.row), {}});
        }
      }
      if (!seen_.insert(reference).second) return false;
    }
    hits_.push_back({segment, row});
    return true;
  }
  std::size_t size() const { return hits_.size(); }
  std::vector<RecordRef> take() { return std::move(hits_); }

 private:
  std::vector<RecordRef> hits_;
  std::unordered_set<FileReference, FileReferenceHash> seen_;
};

}  // namespace

bool MatchLogicQuery::matches(const char* cmatchs) const {
  if (orQuery) {
    for (const auto& alternative : *orQuery) {
      if (contains(cmatchs, alternative)) return true;
    }
    return false;
  }
  return contains(cmatchs, andQuery);
}

std::vector<MatchLogicQuery> MatchLogic::parse(std::string_view query) {
  std::string text = replacingFullwidthBars(query);
  std::vector<MatchLogicQuery> groups;
  for (std::string_view term : splitTerms(text)) {
    MatchLogicQuery group{CStringRef(term), std::nullopt};
    if (term.find('|') != std::string_view::npos) {
      std::vector<CStringRef> pieces;
      std::size_t start = 0;
      while (start <= term.size()) {
        std::size_t end = term.find('|', start);
        if (end == std::string_view::npos) end = term.size();
        if (end > start) pieces.emplace_back(term.substr(start, end - start));
        start = end + 1;
      }
      if (!pieces.empty()) group.orQuery = std::move(pieces);
    }
    groups.push_back(std::move(group));
  }
  return groups;
}

bool MatchLogic::matchesAll(const std::vector<MatchLogicQuery>& groups, const char* cmatchs) {
  for (const auto& group : groups) {
    if (!group.matches(cmatchs)) return false;
  }
  return true;
}

namespace {

// Candidate positions are where the needle's first and last bytes both sit at
// the right distance, 64 positions per step; each candidate is confirmed with
// memcmp. Long runs of text without a candidate cost two loads and two
// compares per 32 bytes, which keeps the loop near memory speed.
__attribute__((target("avx2"))) const char* findBytesAvx2(const char* text, std::size_t length,
                                                           const char* needle, std::size_t size) {
  const __m256i first = _mm256_set1_epi8(needle[0]);
  const __m256i last = _mm256_set1_epi8(needle[size - 1]);
  std::size_t i = 0;
  for (; i + size - 1 + 64 <= length; i += 64) {
    const char* at = text + i;
    __m256i a0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
    __m256i b0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + size - 1));
    __m256i a1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + 32));
    __m256i b1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + 32 + size - 1));
    uint64_t mask0 = static_cast<uint32_t>(
        _mm256_movemask_epi8(_mm256_and_si256(_mm256_cmpeq_epi8(a0, first), _mm256_cmpeq_epi8(b0, last))));
    uint64_t mask1 = static_cast<uint32_t>(
        _mm256_movemask_epi8(_mm256_and_si256(_mm256_cmpeq_epi8(a1, first), _mm256_cmpeq_epi8(b1, last))));
    uint64_t mask = mask0 | (mask1 << 32);
    while (mask) {
      unsigned bit = static_cast<unsigned>(__builtin_ctzll(mask));
      if (size <= 2 || std::memcmp(at + bit + 1, needle + 1, size - 2) == 0) return at + bit;
      mask &= mask - 1;
    }
  }
  if (i >= length) return nullptr;
  return static_cast<const char*>(::memmem(text + i, length - i, needle, size));
}

bool hasAvx2() {
  static const bool supported = __builtin_cpu_supports("avx2");
  return supported;
}

}  // namespace

const char* findBytes(const char* begin, const char* end, std::string_view needle) {
  if (needle.empty() || begin >= end) return nullptr;
  const std::size_t length = static_cast<std::size_t>(end - begin);
  if (needle.size() > length) return nullptr;
  if (needle.size() == 1) return static_cast<const char*>(std::memchr(begin, needle[0], length));
  if (hasAvx2()) return findBytesAvx2(begin, length, needle.data(), needle.size());
  return static_cast<const char*>(::memmem(begin, length, needle.data(), needle.size()));
}

namespace {

// Calls visit(row) for the rows in [firstRow, endRow), in order, whose match
// text may hold one of the anchor's needles (those where one occurs in the
// row's region); stops when visit returns false.
template <typename Visit>
void forEachCandidate(const FileTable& table, const Anchor& anchor, std::size_t firstRow, std::size_t endRow,
                      Visit&& visit) {
  const char* const begin = table.arena().data();
  const char* position = begin + table.textOffset(firstRow);
  const char* const end = begin + table.textOffset(endRow);
  std::vector<const char*> next(anchor.needles.size(), nullptr);
  std::vector<bool> exhausted(anchor.needles.size(), false);
  while (position < end) {
    const char* candidate = nullptr;
    for (std::size_t k = 0; k < anchor.needles.size(); ++k) {
      if (exhausted[k]) continue;
      if (!next[k] || next[k] < position) {
        next[k] = findBytes(position, end, anchor.needles[k]);
        if (!next[k]) {
          exhausted[k] = true;
          continue;
        }
      }
      if (!candidate || next[k] < candidate) candidate = next[k];
    }
    if (!candidate) return;
    std::size_t row = table.recordAt(static_cast<std::size_t>(candidate - begin));
    if (!visit(row)) return;
    position = begin + table.textOffset(row + 1);
  }
}

}  // namespace

std::vector<RecordRef> runMatchLoop(const FileSegments& segments, const std::vector<MatchLogicQuery>& groups,
                                    int64_t maxcount,
                                    const std::function<bool(const FileTable&, std::size_t)>& admit) {
  HitList hits;
  auto examine = [&](uint32_t segment, std::size_t row) {
    const FileTable& table = *segments[segment];
    if (!segments[segment].isLive(row)) return;  // removed since the table was built
    if (admit && !admit(table, row)) return;
    if (!MatchLogic::matchesAll(groups, table.matchCString(row))) return;
    hits.add(segments, segment, static_cast<uint32_t>(row));
  };

  // A count of 0 or less stops after the first record examined.
  if (maxcount <= 0) {
    for (uint32_t s = 0; s < segments.size(); ++s) {
      for (uint32_t r = 0; r < segments[s]->size(); ++r) {
        if (!segments[s].isLive(r)) continue;
        examine(s, r);
        return hits.take();
      }
    }
    return hits.take();
  }
  const std::size_t limit = static_cast<std::size_t>(maxcount);

  Anchor anchor;
  if (groups.empty()) {
    for (uint32_t s = 0; s < segments.size() && hits.size() < limit; ++s) {
      for (uint32_t r = 0; r < segments[s]->size() && hits.size() < limit; ++r) examine(s, r);
    }
    return hits.take();
  }
  if (!chooseAnchor(segments, groups, anchor)) return {};

  for (uint32_t s = 0; s < segments.size() && hits.size() < limit; ++s) {
    forEachCandidate(*segments[s], anchor, 0, segments[s]->size(), [&](std::size_t row) {
      examine(s, row);
      return hits.size() < limit;
    });
  }
  return hits.take();
}

}  // namespace quorvi

#include "spotlight/name_prefilter.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "fileindex/match_logic.h"

namespace quorvi {

namespace {

// How often a run occurs near the front of the first table's arena: a cheap
// guess at how many records it would bring.
std::size_t sampledOccurrences(const FileSegments& segments, std::string_view bytes) {
  constexpr std::size_t kSampleBytes = 128 * 1024;
  for (const Segment& segment : segments) {
    std::string_view arena = segment->arena();
    if (arena.empty()) continue;
    const char* position = arena.data();
    const char* const end = arena.data() + std::min(arena.size(), kSampleBytes);
    std::size_t count = 0;
    while (const char* hit = findBytes(position, end, bytes)) {
      ++count;
      position = hit + 1;
    }
    return count;
  }
  return 0;
}

// Rows of a table whose match text is not ASCII and holds something that
// folds into ASCII (an accent, a ligature, a capital): the only ones whose
// skeleton can hold a run that their text lacks, unless the run holds the
// skeleton's mask byte. A table never changes, so each one is looked at once
// (by the first query that meets it) and the answer kept while it lives.
std::shared_ptr<const std::vector<uint32_t>> foldableRows(const FileTableRef& table) {
  static std::mutex mutex;
  static std::vector<std::pair<std::weak_ptr<const FileTable>, std::shared_ptr<const std::vector<uint32_t>>>> cache;
  {
    std::lock_guard lock(mutex);
    for (const auto& [owner, rows] : cache) {
      if (owner.lock() == table) return rows;
    }
  }
  auto rows = std::make_shared<std::vector<uint32_t>>();
  for (std::size_t row = 0; row < table->size(); ++row) {
    if (table->matchTextIsAscii(row)) continue;
    std::size_t regionLength = table->textOffset(row + 1) - table->textOffset(row);
    if (!asciiSkeletonOnlyMasks(std::string_view(table->matchCString(row), regionLength))) {
      rows->push_back(static_cast<uint32_t>(row));
    }
  }
  std::lock_guard lock(mutex);
  std::erase_if(cache, [](const auto& entry) { return entry.first.expired(); });
  cache.emplace_back(table, rows);
  return rows;
}

}  // namespace

NamePrefilter::NamePrefilter(const std::vector<const TextPattern*>& patterns) {
  for (const TextPattern* pattern : patterns) {
    const std::string& bytes = pattern->requiredLowercaseBytes();
    if (bytes.empty()) continue;
    needles_.push_back({pattern, bytes.find('\x01') != std::string::npos});
  }
}

bool NamePrefilter::mayMatch(const FileTable& table, std::size_t row) const { return passes(table, row, nullptr); }

// `absent`: a needle already known not to occur in the match text.
bool NamePrefilter::passes(const FileTable& table, std::size_t row, const Needle* absent) const {
  if (needles_.empty()) return true;
  // The text's length is found only once it is needed (a record that is
  // turned down by its region alone is not measured).
  std::string_view text;
  bool measured = false;
  auto matchText = [&] {
    if (!measured) {
      text = table.matchText(row);
      measured = true;
    }
    return text;
  };
  thread_local std::string skeleton;
  enum { unknown, masksOnly, built } skeletonState = unknown;
  for (const Needle& needle : needles_) {
    const std::string& bytes = needle.pattern->requiredLowercaseBytes();
    if (&needle != absent) {
      std::string_view own = matchText();
      if (memmem(own.data(), own.size(), bytes.data(), bytes.size())) continue;
    }
    if (needle.pattern->requiredBytesHoldInAnyText() || table.matchTextIsAscii(row)) return false;
    // Not ASCII: "café" holds "cafe" only once its accent is dropped. A text
    // in which nothing folds into ASCII has nothing to add.
    if (skeletonState == unknown) {
      std::size_t regionLength = table.textOffset(row + 1) - table.textOffset(row);
      if (asciiSkeletonOnlyMasks(std::string_view(table.matchCString(row), regionLength))) {
        skeletonState = masksOnly;
      } else {
        asciiSkeleton(matchText(), skeleton);
        skeletonState = built;
      }
    }
    if (skeletonState == masksOnly) {
      if (!needle.holdsMask) return false;
      asciiSkeleton(matchText(), skeleton);
      skeletonState = built;
    }
    if (!memmem(skeleton.data(), skeleton.size(), bytes.data(), bytes.size())) return false;
  }
  return true;
}

const NamePrefilter::Needle& NamePrefilter::anchorFor(const FileSegments& segments) const {
  // A run found as is in any text needs no look at the texts that are not
  // ASCII; among the others, the rarest, the longer on a tie.
  const Needle* best = nullptr;
  std::size_t bestCount = 0;
  for (const Needle& needle : needles_) {
    const std::string& bytes = needle.pattern->requiredLowercaseBytes();
    std::size_t count = sampledOccurrences(segments, bytes);
    if (best) {
      bool anyText = needle.pattern->requiredBytesHoldInAnyText();
      bool bestAnyText = best->pattern->requiredBytesHoldInAnyText();
      if (anyText != bestAnyText) {
        if (!anyText) continue;
      } else if (count > bestCount ||
                 (count == bestCount && bytes.size() <= best->pattern->requiredLowercaseBytes().size())) {
        continue;
      }
    }
    best = &needle;
    bestCount = count;
  }
  return *best;
}

bool NamePrefilter::walkTable(const Segment& segment, const Needle& anchor,
                              const std::function<bool(const FileTable&, std::size_t)>& visit) const {
  const FileTable& table = *segment;
  const std::size_t rows = table.size();
  const std::string& bytes = anchor.pattern->requiredLowercaseBytes();
  const char* const begin = table.arena().data();
  const char* const end = begin + table.arena().size();
  // The first record at or after `from` whose region holds the run. A hit
  // past the record's match text (in the name kept after it) still stops
  // there: mayMatch turns it down, and the search goes on from the next
  // record, so a run that starts in one region and ends in the next is
  // never taken for the next record's.
  auto nextHit = [&](std::size_t from) {
    if (from >= rows) return rows;
    const char* hit = findBytes(begin + table.textOffset(from), end, bytes);
    return hit ? table.recordAt(static_cast<std::size_t>(hit - begin)) : rows;
  };
  // Records whose match text is not ASCII may hold the run only in their
  // skeleton, unless folding cannot hide it.
  const bool foldingMayHide = !anchor.pattern->requiredBytesHoldInAnyText();
  // Only texts where something folds into ASCII can gain the run, unless it
  // holds the mask byte every other character becomes.
  const bool anyNeedleHoldsMask =
      std::any_of(needles_.begin(), needles_.end(), [](const Needle& needle) { return needle.holdsMask; });
  std::shared_ptr<const std::vector<uint32_t>> foldable;
  if (foldingMayHide && !anyNeedleHoldsMask) foldable = foldableRows(segment.table);
  std::size_t nextFoldable = 0;
  auto nextNotAscii = [&](std::size_t from) {
    if (!foldingMayHide) return rows;
    if (foldable) {
      while (nextFoldable < foldable->size() && (*foldable)[nextFoldable] < from) ++nextFoldable;
      return nextFoldable < foldable->size() ? static_cast<std::size_t>((*foldable)[nextFoldable]) : rows;
    }
    while (from < rows && table.matchTextIsAscii(from)) ++from;
    return from;
  };
  std::size_t hitRow = nextHit(0);
  std::size_t notAsciiRow = nextNotAscii(0);
  while (true) {
    const std::size_t row = std::min(hitRow, notAsciiRow);
    if (row >= rows) return true;
    // Before the next hit, the run is not in the record's region at all.
    const Needle* absent = row < hitRow ? &anchor : nullptr;
    if (segment.isLive(row) && passes(table, row, absent) && !visit(table, row)) return false;
    if (row == hitRow) hitRow = nextHit(row + 1);
    if (row == notAsciiRow) notAsciiRow = nextNotAscii(row + 1);
  }
}

void NamePrefilter::forEachCandidate(const FileSegments& segments,
                                     const std::function<bool(const FileTable&, std::size_t)>& visit) const {
  if (needles_.empty()) {
    for (const Segment& segment : segments) {
      for (std::size_t row = 0; row < segment->size(); ++row) {
        if (segment.isLive(row) && !visit(*segment, row)) return;
      }
    }
    return;
  }
  const Needle& anchor = anchorFor(segments);
  for (const Segment& segment : segments) {
    if (!walkTable(segment, anchor, visit)) return;
  }
}

}  // namespace quorvi

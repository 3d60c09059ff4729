// UnfairlockFileArray: the index itself, a lock-guarded ordered list of
// record segments (FileTable plus the rows since removed). A run publishes
// one segment; changes after it add small segments in front and mark rows of
// older ones dead, so that reading the whole index under the lock copies a
// handful of pointers, not a million records, and a change never rewrites a
// big table. Records are read in segment order, then table order, skipping
// dead rows. Every segment's table uses the same folder tree.
#pragma once

#include <string>
#include <vector>

#include "common/unfair_lock.h"
#include "fileindex/file_table.h"

namespace quorvi {

class UnfairlockFileArray : public UnfairlockArray<Segment> {
 public:
  // Number of live records (not segments).
  std::size_t count() const;
  // Marks dead, keeping the order of the rest, every record whose path
  // begins with one of the prefixes (a plain string prefix: removing "/a/b"
  // also removes "/a/bc"). Returns the number removed.
  std::size_t removeByPrefixes(const std::vector<std::string>& prefixes);
  // Marks dead every record whose reference equals one of the given ones.
  std::size_t removeFiles(const std::vector<FileReference>& references);
};

// The segment with the rows for which drop(row) is true marked dead too.
template <typename Drop>
Segment segmentWithout(const Segment& segment, Drop&& drop, std::size_t& dropped) {
  std::shared_ptr<std::vector<uint64_t>> dead;
  std::size_t count = 0;
  for (std::size_t row = 0; row < segment->size(); ++row) {
    if (!segment.isLive(row) || !drop(row)) continue;
    if (!dead) {
      dead = segment.dead ? std::make_shared<std::vector<uint64_t>>(*segment.dead)
                          : std::make_shared<std::vector<uint64_t>>((segment->size() + 63) / 64, 0);
    }
    (*dead)[row >> 6] |= uint64_t{1} << (row & 63);
    ++count;
  }
  if (!count) return segment;
  dropped += count;
  return Segment{segment.table, std::move(dead), segment.deadCount + count};
}

}  // namespace quorvi

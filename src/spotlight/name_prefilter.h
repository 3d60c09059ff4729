// NamePrefilter: the records of the file index whose names may match a
// query's name patterns, found without looking at every record.
//
// Each pattern brings a run of bytes that every name it matches holds once
// lower-cased (TextPattern::requiredLowercaseBytes). A record may match when
// its match text holds every pattern's run, or, for a match text that is not
// ASCII, when the text's ASCII skeleton does ("café" holds "cafe" only once
// its accent is dropped). That is a cheap test that only skips records; the
// patterns themselves decide.
//
// `mayMatch` applies the test to one record. `forEachCandidate` yields the
// same records in the same order, but finds them by searching each table's
// arena for one pattern's run (the one seen least often in a sample) with a
// vectorised substring search, and looks only at the records where that run
// occurs, and, when folding could hide the run, at the records whose match
// text holds something that folds into ASCII (found once per table, by the
// first query that meets it, and kept while the table lives; most texts that
// are not ASCII, Chinese names among them, have nothing that folds).
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "fileindex/file_table.h"
#include "spotlight/text_pattern.h"

namespace quorvi {

class NamePrefilter {
 public:
  // The patterns every name must match; those without a required run are
  // left out (they skip nothing). The patterns must outlive the filter.
  explicit NamePrefilter(const std::vector<const TextPattern*>& patterns);

  // Whether the record may match every pattern.
  bool mayMatch(const FileTable& table, std::size_t row) const;

  // Calls visit(table, row) for each live record of the segments, in order
  // (segment by segment, rows ascending), for which mayMatch holds, until
  // visit returns false.
  void forEachCandidate(const FileSegments& segments,
                        const std::function<bool(const FileTable& table, std::size_t row)>& visit) const;

 private:
  struct Needle {
    const TextPattern* pattern;
    bool holdsMask;  // the run holds 0x01, which skeletons use as a mask
  };
  bool passes(const FileTable& table, std::size_t row, const Needle* absent) const;
  // Picks the needle that drives the arena search.
  const Needle& anchorFor(const FileSegments& segments) const;
  // Returns false once visit did.
  bool walkTable(const Segment& segment, const Needle& anchor,
                 const std::function<bool(const FileTable&, std::size_t)>& visit) const;

  std::vector<Needle> needles_;
};

}  // namespace quorvi

// MatchLogic: a query as AND groups of OR alternatives, and the loop that runs
// the groups over the index's match texts.
//
// Parsing: every FULLWIDTH VERTICAL LINE (U+FF5C) becomes "|"; the text is
// split at Unicode white space (spaces, tabs and the other Zs characters, not
// line breaks) into terms; each term is one group: `andQuery` is the term as
// typed, `orQuery` its non-empty "|"-separated pieces when the term holds a
// "|" and at least one piece is non-empty. So "report 2023|2024" is
// report AND (2023 OR 2024); "a|" is the one alternative "a"; a lone "|" is
// matched as the byte "|".
//
// Matching is byte-exact substring search (C strstr semantics); nothing is
// folded here: match texts are lower-cased when records are built and the
// client sends lower-case queries.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fileindex/c_string_ref.h"
#include "fileindex/unfairlock_file_array.h"

namespace quorvi {

struct MatchLogicQuery {
  CStringRef andQuery;
  std::optional<std::vector<CStringRef>> orQuery;

  // Whether the group matches a record's match text.
  bool matches(const char* cmatchs) const;
};

class MatchLogic {
 public:
  static std::vector<MatchLogicQuery> parse(std::string_view query);
  // True for every record when there are no groups.
  static bool matchesAll(const std::vector<MatchLogicQuery>& groups, const char* cmatchs);
};

// A record of the index: its segment and its row there.
struct RecordRef {
  uint32_t segment = 0;
  uint32_t row = 0;
};

// Runs the match loop over the segments in order and returns the hits in
// index order, deduplicated by file reference. `admit` is the entry point's
// extra condition (null: none). The loop stops once the hits reach maxcount,
// tested after every record examined, so a maxcount of 0 or less examines
// only the first record. Dead rows are not records.
//
// The result is that of testing every record in turn; the loop only skips
// records that cannot match: it looks for the group needle least likely to
// occur with a vectorised substring search over the match-text arena and
// tests the other groups only on the records where that needle occurs.
// (Splitting a large table over the pool's two workers was measured: no
// faster on a busy machine, so one worker does it.)
std::vector<RecordRef> runMatchLoop(const FileSegments& segments, const std::vector<MatchLogicQuery>& groups,
                                    int64_t maxcount,
                                    const std::function<bool(const FileTable&, std::size_t)>& admit);

// Substring search with strstr's answer over a buffer that may hold NULs
// (each NUL ends one text): finds needle in [begin, end), nullptr if absent.
const char* findBytes(const char* begin, const char* end, std::string_view needle);

}  // namespace quorvi

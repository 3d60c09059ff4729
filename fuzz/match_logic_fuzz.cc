// The search text of #12-#14 as a client may send it: parsed into groups,
// checked against the request bounds, and matched against a few texts.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fileindex/match_logic.h"
#include "service/request_bounds.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quorvi;
  const std::string query(reinterpret_cast<const char*>(data), size);
  queryWithinBounds(query);
  std::vector<MatchLogicQuery> groups = MatchLogic::parse(query);
  static const char* const kTexts[] = {"report 2024.pdf", "报告 baogao bg", "", "|", "a|b c"};
  for (const char* text : kTexts) MatchLogic::matchesAll(groups, text);
  MatchLogic::matchesAll(groups, query.c_str());
  // The arena search the match loop uses, with the query as the haystack.
  for (const auto& group : groups) {
    findBytes(query.data(), query.data() + query.size(), group.andQuery.view());
    if (group.orQuery) {
      for (const auto& piece : *group.orQuery) findBytes(query.data(), query.data() + query.size(), piece.view());
    }
  }
  return 0;
}

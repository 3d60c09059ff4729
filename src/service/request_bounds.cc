#include "service/request_bounds.h"

#include "fileindex/match_logic.h"

namespace quorvi {

namespace {

// What to check in one member's arguments, by position (-1: nothing).
struct Checks {
  int path = -1;           // a path or identifier
  int query = -1;          // a file-search text (bytes and terms)
  int keyword = -1;        // another search text (bytes only: its grammar is not ours)
  int scopes = -1;         // a list of paths
  int taskArguments = -1;  // the arguments of a named task
  int maxcount = -1;       // lowered to the cap, never refused
};

Checks checksOf(int number) {
  Checks c;
  switch (number) {
    case 2: case 7: case 8: case 9: case 11:
      c.scopes = 0;
      break;
    case 12: case 14:
      c.query = 0;
      c.maxcount = 1;
      break;
    case 13:
      c.path = 0;
      c.query = 1;
      c.maxcount = 2;
      break;
    case 15: case 18: case 20: case 23: case 24: case 25: case 28:
      c.path = 0;
      break;
    case 21: case 22:
      c.keyword = 0;
      c.scopes = 1;
      c.maxcount = 2;
      break;
    case 30:
      c.keyword = 0;
      c.maxcount = 1;
      break;
    case 31: case 32:
      c.path = 0;  // the task name: a name longer than a path is no task
      c.taskArguments = 1;
      break;
  }
  return c;
}

bool pathWithinBounds(const std::string& path) { return path.size() <= RequestBounds::kMaxPathBytes; }

bool scopesWithinBounds(const std::vector<std::string>& scopes) {
  if (scopes.size() > RequestBounds::kMaxScopes) return false;
  for (const auto& scope : scopes) {
    if (!pathWithinBounds(scope)) return false;
  }
  return true;
}

bool taskArgumentsWithinBounds(const std::vector<std::string>& arguments) {
  if (arguments.size() > RequestBounds::kMaxTaskArguments) return false;
  std::size_t bytes = 0;
  for (const auto& argument : arguments) bytes += argument.size() + 1;
  return bytes <= RequestBounds::kMaxTaskArgumentBytes;
}

bool withinBounds(const Checks& c, const CallArguments& a) {
  if (c.path >= 0 && !pathWithinBounds(a.text(c.path))) return false;
  if (c.query >= 0 && !queryWithinBounds(a.text(c.query))) return false;
  if (c.keyword >= 0 && a.text(c.keyword).size() > RequestBounds::kMaxQueryBytes) return false;
  if (c.scopes >= 0 && !scopesWithinBounds(a.strings(c.scopes))) return false;
  if (c.taskArguments >= 0 && !taskArgumentsWithinBounds(a.strings(c.taskArguments))) return false;
  return true;
}

// The member's answer to a request it will not carry out.
std::vector<ReplyValue> failureValues(const MemberInfo& member, const CallArguments& a) {
  switch (member.number) {
    case 15:
      return {ReplyValue::ofFlag(false)};
    case 23:  // the bundle identifier echoed, no data
      return {ReplyValue::ofString(a.text(0)), ReplyValue::ofBytes(std::nullopt)};
    case 24: case 25:  // no data, the path echoed
      return {ReplyValue::ofBytes(std::nullopt), ReplyValue::ofString(a.text(0))};
    case 28:  // no folder that long exists
      return {ReplyValue::ofBytes(std::nullopt), ReplyValue::ofString(std::string(kZoteroLibraryNotExist))};
  }
  if (member.outSignature == "bay") return {ReplyValue::ofBytes(std::nullopt)};
  return {};
}

}  // namespace

bool queryWithinBounds(const std::string& query) {
  if (query.size() > RequestBounds::kMaxQueryBytes) return false;
  std::size_t terms = 0;
  for (const auto& group : MatchLogic::parse(query)) terms += group.orQuery ? group.orQuery->size() : 1;
  return terms <= RequestBounds::kMaxQueryTerms;
}

std::optional<std::vector<ReplyValue>> applyRequestBounds(const MemberInfo& member, CallArguments& arguments) {
  Checks checks = checksOf(member.number);
  if (!withinBounds(checks, arguments)) return failureValues(member, arguments);
  if (checks.maxcount >= 0 && static_cast<std::size_t>(checks.maxcount) < arguments.values.size()) {
    int64_t& maxcount = arguments.values[checks.maxcount].integer;
    if (maxcount > RequestBounds::kMaxReplyRecords) maxcount = RequestBounds::kMaxReplyRecords;
  }
  return std::nullopt;
}

}  // namespace quorvi

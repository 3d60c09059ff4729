// Limits on what one request may ask of the service, checked on the bus
// thread before any component sees the request. A client can send a query of
// megabytes, a maxcount of 10^18 or a thousand scopes; each such request is
// answered as the operation answers a failure (nil, false, or its error text)
// instead of holding a thread for seconds or building a reply the bus would
// refuse. README's "Bounds on requests" lists them per operation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "service/bus_values.h"
#include "service/members.h"
#include "service/reply.h"

namespace quorvi {

struct RequestBounds {
  // A search text: bytes, and groups plus alternatives (each alternative is
  // one pass over the index, each group a test per candidate).
  static constexpr std::size_t kMaxQueryBytes = 1024;
  static constexpr std::size_t kMaxQueryTerms = 32;
  // Records one reply may carry; a larger maxcount is read as this.
  static constexpr int64_t kMaxReplyRecords = 10000;
  // A path, folder, destination or identifier (PATH_MAX).
  static constexpr std::size_t kMaxPathBytes = 4096;
  // Scopes in one call.
  static constexpr std::size_t kMaxScopes = 256;
  // Arguments of a named task, and their bytes in all (well below the
  // kernel's limit for a command line).
  static constexpr std::size_t kMaxTaskArguments = 1024;
  static constexpr std::size_t kMaxTaskArgumentBytes = std::size_t(1) << 20;
};

// The failure text of #28 when the library's answer would not fit one reply.
inline constexpr const char* kZoteroLibraryTooLarge = "Zotero Library Too Large";
// The failure text of #28 for a folder path no library can have.
inline constexpr const char* kZoteroLibraryNotExist = "Zotero Library Not Exist";

// Applies the bounds to a call's arguments: a maxcount past the cap is
// lowered to it (in place). Answers the reply values the member gives for a
// request out of bounds, or nullopt when the request may go on. Members
// without reply values answer an empty list (the call is then dropped).
std::optional<std::vector<ReplyValue>> applyRequestBounds(const MemberInfo& member, CallArguments& arguments);

// Whether a file-search text is within the query bounds.
bool queryWithinBounds(const std::string& query);

}  // namespace quorvi

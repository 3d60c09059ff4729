// The bus contract in one table: bus name, object path, interface, and for
// each of the 33 members its number, selector, signatures and argument names.
// The vtable, the dispatcher, the `quorvi` client and the documentation are
// all made from members.def, so they cannot drift apart.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

inline constexpr const char* kBusName = "com.quorvi.quorvifind";
inline constexpr const char* kObjectPath = "/com/quorvi/quorvifind";
inline constexpr const char* kInterfaceName = "com.quorvi.QuorviXPCServiceProtocol";
inline constexpr const char* kSignalInterfaceName = "com.quorvi";
// Arrays on the bus are at most 64 MiB; a larger reply is answered as nil.
inline constexpr std::size_t kMaxReplyArrayBytes = std::size_t(64) << 20;

enum class MemberRuns { Quick, Worker, Queued, Ack };

struct MemberInfo {
  int number;
  std::string_view member;    // "SearchFilesWithQueryMaxcountCompletion"
  std::string_view selector;  // "searchFilesWithQuery:maxcount:completion:"
  std::string_view inSignature;
  std::vector<std::string> inNames;
  std::string_view outSignature;
  std::vector<std::string> outNames;
  MemberRuns runs;
};

const std::vector<MemberInfo>& allMembers();
// By member name or by selector; nullptr when unknown.
const MemberInfo* findMember(std::string_view nameOrSelector);

// Splits a D-Bus signature into complete types: "sasx" → {"s", "as", "x"}.
std::vector<std::string> splitSignature(std::string_view signature);

}  // namespace quorvi

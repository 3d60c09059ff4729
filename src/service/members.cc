#include "service/members.h"

namespace quorvi {

namespace {

std::vector<std::string> splitNames(const char* names, std::size_t sizeWithTerminator) {
  std::vector<std::string> out;
  std::string current;
  for (std::size_t i = 0; i + 1 < sizeWithTerminator; ++i) {
    if (names[i] == '\0') {
      out.push_back(current);
      current.clear();
    } else {
      current += names[i];
    }
  }
  return out;
}

}  // namespace

const std::vector<MemberInfo>& allMembers() {
  static const auto* members = new std::vector<MemberInfo>{
#define QUORVI_MEMBER(number, member, selector, inSig, inNames, outSig, outNames, runs) \
  MemberInfo{number,                                                                   \
             #member,                                                                  \
             selector,                                                                 \
             inSig,                                                                    \
             splitNames(inNames, sizeof(inNames)),                                     \
             outSig,                                                                   \
             splitNames(outNames, sizeof(outNames)),                                   \
             MemberRuns::runs},
#include "service/members.def"
#undef QUORVI_MEMBER
  };
  return *members;
}

const MemberInfo* findMember(std::string_view nameOrSelector) {
  for (const auto& info : allMembers()) {
    if (info.member == nameOrSelector || info.selector == nameOrSelector) return &info;
  }
  return nullptr;
}

std::vector<std::string> splitSignature(std::string_view signature) {
  std::vector<std::string> types;
  std::size_t i = 0;
  while (i < signature.size()) {
    std::size_t start = i;
    while (i < signature.size() && signature[i] == 'a') ++i;  // arrays of simple types only
    ++i;
    types.emplace_back(signature.substr(start, i - start));
  }
  return types;
}

}  // namespace quorvi

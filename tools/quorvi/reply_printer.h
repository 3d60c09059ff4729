// How `quorvi` shows a reply: each value on its own line, labelled with the
// member's out-argument name; JSON data pretty-printed; nil written as nil.
#pragma once

#include <string>
#include <vector>

#include "service/members.h"
#include "service/reply.h"

namespace quorvi {

std::string formatReply(const MemberInfo& member, const std::vector<ReplyValue>& values);
// Bytes as a person can read them: pretty JSON, else UTF-8 text, else a
// byte count and the first bytes in base64.
std::string formatBytes(const std::string& bytes);

}  // namespace quorvi

#include "tools/quorvi/reply_printer.h"

#include "common/json.h"
#include "service/bus_values.h"

namespace quorvi {

std::string formatBytes(const std::string& bytes) {
  if (bytes.empty()) return "(empty bytes)";
  Json json = Json::parse(bytes, nullptr, false);
  if (!json.is_discarded() && (json.is_object() || json.is_array())) return json.dump(2);
  if (validUtf8(bytes) == bytes) return bytes;
  return "(" + std::to_string(bytes.size()) + " bytes) " + base64Encode(bytes.substr(0, 48)) +
         (bytes.size() > 48 ? "…" : "");
}

std::string formatReply(const MemberInfo& member, const std::vector<ReplyValue>& values) {
  std::string out;
  // Out names come in (flag, value) pairs for optional values; label each
  // value with the name of its value part.
  std::size_t nameIndex = 0;
  for (const auto& value : values) {
    std::string label;
    if (value.type == ReplyValue::Type::optionalBytes || value.type == ReplyValue::Type::optionalString) {
      label = nameIndex + 1 < member.outNames.size() ? member.outNames[nameIndex + 1] : "value";
      nameIndex += 2;
    } else {
      label = nameIndex < member.outNames.size() ? member.outNames[nameIndex] : "value";
      nameIndex += 1;
    }
    out += label + ": ";
    switch (value.type) {
      case ReplyValue::Type::flag:
        out += value.flag ? "true" : "false";
        break;
      case ReplyValue::Type::integer:
        out += std::to_string(value.integer);
        break;
      case ReplyValue::Type::optionalBytes:
        out += value.value ? formatBytes(*value.value) : "nil";
        break;
      case ReplyValue::Type::optionalString:
        out += value.value ? "\"" + *value.value + "\"" : "nil";
        break;
    }
    out += "\n";
  }
  if (values.empty()) out = "(done)\n";
  return out;
}

}  // namespace quorvi

#include "processes/process_entry.h"

#include "processes/text_util.h"

namespace quorvi {

Json toJson(const ProcessEntry& entry) {
  Json json = Json::object();
  json["activationPolicy"] = entry.activationPolicy;
  json["pid"] = entry.pid;
  json["ppid"] = entry.ppid;
  json["name"] = entry.name;
  json["path"] = entry.path;
  json["cpu"] = entry.cpu;
  json["mem"] = entry.mem;
  json["user"] = entry.user;
  if (entry.bundleIdentifier) json["bundleIdentifier"] = *entry.bundleIdentifier;
  if (entry.port) json["port"] = *entry.port;
  json["matchs"] = entry.matchs;
  return json;
}

Json toJson(const RunningProcesses& processes) {
  auto list = [](const std::vector<ProcessEntry>& entries) {
    Json array = Json::array();
    for (const auto& entry : entries) array.push_back(toJson(entry));
    return array;
  };
  Json json = Json::object();
  json["normalProcesses"] = list(processes.normalProcesses);
  json["portProcesses"] = list(processes.portProcesses);
  json["allProcesses"] = list(processes.allProcesses);
  return json;
}

namespace {

// As the JSON library writes a string: quotes, backslashes and control
// characters escaped, other UTF-8 as it is. Text that is not UTF-8 goes
// through the library so that its replacement characters come out the same.
void appendString(std::string& out, std::string_view text) {
  if (!text::isValidUtf8(text)) {
    out += encodeJson(Json(std::string(text))).value_or("\"\"");
    return;
  }
  static const char kHex[] = "0123456789abcdef";
  out += '"';
  for (char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += "\\u00";
          out += kHex[(c >> 4) & 0xF];
          out += kHex[c & 0xF];
        } else {
          out += c;
        }
    }
  }
  out += '"';
}

void appendKey(std::string& out, const char* key) {
  out += '"';
  out += key;
  out += "\":";
}

void appendEntry(std::string& out, const ProcessEntry& entry) {
  out += '{';
  appendKey(out, "activationPolicy");
  out += std::to_string(entry.activationPolicy);
  out += ',';
  appendKey(out, "pid");
  out += std::to_string(entry.pid);
  out += ',';
  appendKey(out, "ppid");
  out += std::to_string(entry.ppid);
  out += ',';
  appendKey(out, "name");
  appendString(out, entry.name);
  out += ',';
  appendKey(out, "path");
  appendString(out, entry.path);
  out += ',';
  appendKey(out, "cpu");
  appendString(out, entry.cpu);
  out += ',';
  appendKey(out, "mem");
  out += std::to_string(entry.mem);
  out += ',';
  appendKey(out, "user");
  appendString(out, entry.user);
  out += ',';
  if (entry.bundleIdentifier) {
    appendKey(out, "bundleIdentifier");
    appendString(out, *entry.bundleIdentifier);
    out += ',';
  }
  if (entry.port) {
    appendKey(out, "port");
    out += std::to_string(*entry.port);
    out += ',';
  }
  appendKey(out, "matchs");
  out += '[';
  for (size_t i = 0; i < entry.matchs.size(); ++i) {
    if (i) out += ',';
    appendString(out, entry.matchs[i]);
  }
  out += "]}";
}

void appendList(std::string& out, const char* key, const std::vector<ProcessEntry>& entries) {
  appendKey(out, key);
  out += '[';
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i) out += ',';
    appendEntry(out, entries[i]);
  }
  out += ']';
}

}  // namespace

std::string encodeRunningProcesses(const RunningProcesses& processes) {
  std::string out;
  out.reserve(160 * (processes.allProcesses.size() + processes.portProcesses.size() +
                     processes.normalProcesses.size()) + 64);
  out += '{';
  appendList(out, "normalProcesses", processes.normalProcesses);
  out += ',';
  appendList(out, "portProcesses", processes.portProcesses);
  out += ',';
  appendList(out, "allProcesses", processes.allProcesses);
  out += '}';
  return out;
}

}  // namespace quorvi

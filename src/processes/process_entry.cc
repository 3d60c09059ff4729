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

void appendString(std::string& out, std::string_view text) { appendJsonString(out, text); }

void appendKey(std::string& out, const char* key) { appendJsonKey(out, key); }

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

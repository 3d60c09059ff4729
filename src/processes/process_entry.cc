#include "processes/process_entry.h"

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

}  // namespace quorvi

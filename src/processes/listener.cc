#include "processes/listener.h"

#include <set>
#include <utility>

namespace quorvi {

Json toJson(const Listener& listener) {
  Json json = Json::object();
  json["name"] = listener.name;
  json["user"] = listener.user;
  json["pid"] = listener.pid;
  json["port"] = listener.port;
  return json;
}

std::vector<Listener> withoutDuplicatePorts(std::vector<Listener> listeners) {
  std::set<std::pair<int64_t, int64_t>> seen;
  std::vector<Listener> kept;
  kept.reserve(listeners.size());
  for (auto& listener : listeners) {
    if (seen.insert({listener.pid, listener.port}).second) kept.push_back(std::move(listener));
  }
  return kept;
}

}  // namespace quorvi

// Listener: one process that listens on one local TCP port. Both port
// sources (the lsof tool and /proc) produce these records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/json.h"

namespace quorvi {

struct Listener {
  std::string name;  // command name
  std::string user;  // owning user's login name (or uid when it has none)
  int64_t pid = 0;
  int64_t port = 0;

  bool operator==(const Listener&) const = default;
};

Json toJson(const Listener& listener);

// Keeps the first listener of each (pid, port) pair, in order, so that a
// process listening on the same port over IPv4 and IPv6 is listed once.
std::vector<Listener> withoutDuplicatePorts(std::vector<Listener> listeners);

}  // namespace quorvi

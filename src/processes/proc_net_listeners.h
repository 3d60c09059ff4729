// The native port source: listening TCP sockets (from the kernel's socket
// diagnostics, or /proc/net/tcp and /proc/net/tcp6), tied to their processes through the descriptors in
// /proc/PID/fd. It gives the same Listener records as the lsof tool, in the
// same order (by pid, then by descriptor), without starting a process, and
// sees exactly the processes whose descriptors this user may read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "processes/listener.h"

namespace quorvi {

struct ListeningSocket {
  uint64_t inode = 0;
  int64_t port = 0;
};

// Rows of a /proc/net/tcp or tcp6 table in state LISTEN; other rows, the
// header and malformed lines are passed over.
std::vector<ListeningSocket> parseProcNetTcp(std::string_view table);

// The listening sockets of this network namespace, IPv4 then IPv6.
// From the kernel's socket diagnostics (netlink), which walks only the
// listening sockets, or else from the two tables, whose every read walks
// the whole connection table too; nothing when neither can be read.
std::optional<std::vector<ListeningSocket>> listeningSockets(const std::string& procRoot = "/proc");
std::optional<std::vector<ListeningSocket>> listeningSocketsFromNetlink();
std::optional<std::vector<ListeningSocket>> listeningSocketsFromTables(const std::string& procRoot = "/proc");

// True when this system has the tables (Linux with /proc mounted).
bool procNetTcpAvailable(const std::string& procRoot = "/proc");

// Listeners of every readable process, one per (pid, port); empty when the
// tables cannot be read.
std::vector<Listener> listenersFromProc(const std::string& procRoot = "/proc");
// The same, looking only at the descriptors of these processes (a caller
// that has just read the process table knows which can hold any).
std::vector<Listener> listenersOfProcesses(std::vector<int64_t> pids, const std::string& procRoot = "/proc");

}  // namespace quorvi

#include "processes/proc_net_listeners.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <unordered_map>

#include "processes/proc_files.h"
#include "processes/process_helper.h"
#include "processes/text_util.h"

namespace quorvi {

namespace {

// Columns: sl local_address rem_address st tx:rx tr:when retrnsmt uid timeout inode
constexpr size_t kLocalAddressColumn = 1;
constexpr size_t kStateColumn = 3;
constexpr size_t kInodeColumn = 9;
constexpr std::string_view kListenState = "0A";
constexpr size_t kTableReadBytes = size_t(256) << 10;

std::optional<uint64_t> parseHex(std::string_view digits) {
  if (digits.empty() || digits.size() > 16) return std::nullopt;
  uint64_t value = 0;
  for (char c : digits) {
    int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (digit < 0) return std::nullopt;
    value = value * 16 + uint64_t(digit);
  }
  return value;
}

std::optional<ListeningSocket> parseTableRow(std::string_view line) {
  auto pieces = text::splitAtWhiteSpace(line);
  if (pieces.size() <= kInodeColumn || pieces[kStateColumn] != kListenState) return std::nullopt;
  std::string_view local = pieces[kLocalAddressColumn];
  size_t colon = local.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  auto port = parseHex(local.substr(colon + 1));
  auto inode = text::parseDecimal(pieces[kInodeColumn]);
  if (!port || *port > 0xFFFF || !inode || *inode <= 0) return std::nullopt;
  return ListeningSocket{uint64_t(*inode), int64_t(*port)};
}

std::string commandName(int pidFd) {
  auto name = procfs::readSmallFile(pidFd, "comm");
  if (!name) return "";
  while (!name->empty() && name->back() == '\n') name->pop_back();
  return *name;
}

void appendListenersOfProcess(int64_t pid, int procFd, const std::unordered_map<uint64_t, int64_t>& portsByInode,
                              const ProcessHelper& helper, std::vector<Listener>& listeners) {
  std::string fdPath = std::to_string(pid) + "/fd";
  procfs::DirectoryFd fdDir(procFd, fdPath.c_str());
  if (!fdDir.isOpen()) return;  // another user's process, or it has ended
  bool described = false;
  Listener pending;
  char fdName[24];
  for (int64_t fd : procfs::numericEntries(fdDir.get())) {
    std::snprintf(fdName, sizeof fdName, "%lld", (long long)fd);
    // The descriptor's own inode: a socket's is the number the socket
    // tables give. Cached attributes only, so that a file on a stalled
    // network mount cannot hold the request up.
    struct statx target;
    if (::statx(fdDir.get(), fdName, AT_STATX_DONT_SYNC, STATX_TYPE | STATX_INO, &target) != 0) continue;
    if (!S_ISSOCK(target.stx_mode)) continue;
    auto found = portsByInode.find(target.stx_ino);
    if (found == portsByInode.end()) continue;
    if (!described) {
      procfs::DirectoryFd pidDir(procFd, std::to_string(pid).c_str());
      struct stat info;
      pending.pid = pid;
      pending.name = pidDir.isOpen() ? commandName(pidDir.get()) : "";
      pending.user = pidDir.isOpen() && ::fstat(pidDir.get(), &info) == 0 ? helper.userNameForUid(info.st_uid) : "";
      described = true;
    }
    pending.port = found->second;
    listeners.push_back(pending);
  }
}

}  // namespace

std::vector<ListeningSocket> parseProcNetTcp(std::string_view table) {
  std::vector<ListeningSocket> sockets;
  size_t start = 0;
  while (start < table.size()) {
    size_t end = table.find('\n', start);
    if (end == std::string_view::npos) end = table.size();
    if (auto socket = parseTableRow(table.substr(start, end - start))) sockets.push_back(*socket);
    start = end + 1;
  }
  return sockets;
}

bool procNetTcpAvailable(const std::string& procRoot) {
  return ::access((procRoot + "/net/tcp").c_str(), R_OK) == 0;
}

std::optional<std::vector<ListeningSocket>> listeningSocketsFromTables(const std::string& procRoot) {
  std::vector<ListeningSocket> sockets;
  bool anyTable = false;
  for (const char* table : {"/net/tcp", "/net/tcp6"}) {
    auto contents = procfs::readSmallFile(procRoot + table, kTableReadBytes);
    if (!contents) continue;
    anyTable = true;
    auto rows = parseProcNetTcp(*contents);
    sockets.insert(sockets.end(), rows.begin(), rows.end());
  }
  if (!anyTable) return std::nullopt;
  return sockets;
}

std::optional<std::vector<ListeningSocket>> listeningSockets(const std::string& procRoot) {
  if (procRoot == "/proc") {
    if (auto sockets = listeningSocketsFromNetlink()) return sockets;
  }
  return listeningSocketsFromTables(procRoot);
}

std::vector<Listener> listenersFromProc(const std::string& procRoot) {
  return listenersOfProcesses(procfs::numericEntries(procRoot), procRoot);
}

std::vector<Listener> listenersOfProcesses(std::vector<int64_t> pids, const std::string& procRoot) {
  auto sockets = listeningSockets(procRoot);
  if (!sockets || sockets->empty()) return {};
  std::unordered_map<uint64_t, int64_t> portsByInode;
  for (const auto& socket : *sockets) portsByInode.emplace(socket.inode, socket.port);
  procfs::DirectoryFd procDir(procRoot);
  if (!procDir.isOpen()) return {};
  ProcessHelper helper(procRoot);
  std::sort(pids.begin(), pids.end());
  pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
  // Looking at every descriptor is most of the work.
  auto walk = [&](size_t begin, size_t end, std::vector<Listener>& found) {
    for (size_t i = begin; i < end; ++i) appendListenersOfProcess(pids[i], procDir.get(), portsByInode, helper, found);
  };
  return withoutDuplicatePorts(procfs::inTwoHalves<Listener>(pids.size(), walk));
}

}  // namespace quorvi

// The live sources against the real system: ProcessHelper on /proc, the
// process table from /proc and from ps, the ports from /proc and from lsof.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "listening_child.h"
#include "processes/port_listener.h"
#include "processes/proc_net_listeners.h"
#include "processes/process_helper.h"
#include "processes/process_table.h"

namespace quorvi {
namespace {

namespace fs = std::filesystem;
using testing::ListeningChild;

std::set<std::pair<int64_t, int64_t>> portsOf(const std::vector<Listener>& listeners, int64_t pid) {
  std::set<std::pair<int64_t, int64_t>> ports;
  for (const auto& listener : listeners) {
    if (listener.pid == pid) ports.insert({listener.pid, listener.port});
  }
  return ports;
}

TEST(ProcessHelper, DescribesThisProcess) {
  ProcessHelper helper;
  pid_t self = ::getpid();
  EXPECT_EQ(helper.getProcessNameFromPID(self), "processes_tests");
  EXPECT_EQ(helper.getProcessPathFromPID(self), fs::read_symlink("/proc/self/exe").string());
  EXPECT_EQ(helper.userName(self), std::string(::getpwuid(::geteuid())->pw_name));
  std::thread second([] { std::this_thread::sleep_for(std::chrono::milliseconds(200)); });
  EXPECT_GE(helper.threadCount(self).value_or(0), 2);
  second.join();
}

TEST(ProcessHelper, EndedAndImpossibleProcessesGiveNothing) {
  ProcessHelper helper;
  for (int64_t pid : {int64_t(testing::vanishedPid()), int64_t(0), int64_t(-1), int64_t(INT64_MAX)}) {
    EXPECT_FALSE(helper.getProcessNameFromPID(pid)) << pid;
    EXPECT_FALSE(helper.getProcessPathFromPID(pid)) << pid;
    EXPECT_FALSE(helper.threadCount(pid)) << pid;
    EXPECT_FALSE(helper.userName(pid)) << pid;
  }
}

TEST(ProcessHelper, TruncatedNamesAndUnreadableExecutables) {
  // A stand-in /proc: the kernel's 15-byte name and a command line, without
  // an exe link (as for another user's process).
  fs::path root = fs::temp_directory_path() / ("quorvi-proc-" + std::to_string(::getpid()));
  fs::create_directories(root / "10");
  fs::create_directories(root / "11");
  fs::create_directories(root / "12");
  auto write = [](const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; };
  write(root / "10/comm", "gnome-shell-cal\n");
  write(root / "10/cmdline", std::string("/usr/libexec/gnome-shell-calendar-server\0--x\0", 45));
  write(root / "11/comm", "sshd\n");
  write(root / "11/cmdline", std::string("sshd: alice [priv]\0", 19));
  write(root / "12/comm", "abcdefghijklmno\n");
  write(root / "12/cmdline", std::string("/bin/other\0", 11));
  ProcessHelper helper(root.string());
  EXPECT_EQ(helper.getProcessNameFromPID(10), "gnome-shell-calendar-server");
  EXPECT_EQ(helper.getProcessPathFromPID(10), "/usr/libexec/gnome-shell-calendar-server");
  EXPECT_EQ(helper.getProcessNameFromPID(11), "sshd");
  EXPECT_FALSE(helper.getProcessPathFromPID(11));  // a rewritten command line is no path
  EXPECT_EQ(helper.getProcessNameFromPID(12), "abcdefghijklmno");  // no completion from another name
  fs::remove_all(root);
}

TEST(ProcessTable, ProcAgreesWithPs) {
  auto fromPs = processRowsFromPs();
  auto fromProc = processRowsFromProc();
  ASSERT_TRUE(fromPs && fromProc);
  std::map<int32_t, ProcessRow> procRows;
  for (const auto& row : *fromProc) procRows[row.pid] = row;
  size_t compared = 0;
  for (const auto& row : *fromPs) {
    auto found = procRows.find(row.pid);
    if (found == procRows.end()) continue;  // started or ended in between
    ++compared;
    EXPECT_EQ(found->second.ppid, row.ppid) << row.pid;
    EXPECT_TRUE(found->second.commandName.has_value());
  }
  EXPECT_GT(compared, fromPs->size() / 2);
  // This process is in both, with the same shape of numbers.
  auto self = procRows.find(::getpid());
  ASSERT_NE(self, procRows.end());
  EXPECT_GT(self->second.residentKilobytes, 0);
  EXPECT_NE(self->second.cpu.find('.'), std::string::npos);
}

TEST(PortSources, BothFindAChildsListeners) {
  ListeningChild child("quorvi listen");
  ASSERT_TRUE(child.ok());
  std::set<std::pair<int64_t, int64_t>> expected = {{child.pid(), child.dualStackPort()},
                                                    {child.pid(), child.secondPort()}};
  auto native = listenersFromProc();
  EXPECT_EQ(portsOf(native, child.pid()), expected);
  for (const auto& listener : native) {
    if (listener.pid == child.pid()) {
      EXPECT_EQ(listener.name, "quorvi listen");
    }
  }
  // Asked about some processes only, each source answers for those alone.
  auto only = PortListener(PortSource::procfs).listenersOf({child.pid()});
  EXPECT_EQ(portsOf(only, child.pid()), expected);
  EXPECT_EQ(only.size(), 2u);
  EXPECT_TRUE(PortListener(PortSource::procfs).listenersOf({}).empty());
  if (PortListener::lsofPath().empty()) GTEST_SKIP() << "lsof is not installed";
  EXPECT_EQ(PortListener(PortSource::lsof).listenersOf({child.pid()}).size(), 2u);
  auto fromLsof = PortListener::listenersFromLsof();
  EXPECT_EQ(portsOf(fromLsof, child.pid()), expected);
  for (const auto& listener : fromLsof) {
    if (listener.pid == child.pid()) {
      EXPECT_EQ(listener.name, "quorvi listen");  // "\x20" undone
    }
  }
}

TEST(PortSources, NativeAgreesWithLsofOnEveryListener) {
  if (PortListener::lsofPath().empty()) GTEST_SKIP() << "lsof is not installed";
  ListeningChild child("quorvi agree");
  ASSERT_TRUE(child.ok());
  // Other processes may open or close sockets meanwhile: compare the pairs
  // the native source saw both before and after the tool ran.
  auto before = listenersFromProc();
  auto fromLsof = PortListener::listenersFromLsof();
  auto after = listenersFromProc();
  auto pairs = [](const std::vector<Listener>& listeners) {
    std::set<std::pair<int64_t, int64_t>> set;
    for (const auto& l : listeners) set.insert({l.pid, l.port});
    return set;
  };
  auto stable = pairs(before), latest = pairs(after), tool = pairs(fromLsof);
  std::erase_if(stable, [&](const auto& pair) { return !latest.count(pair); });
  ASSERT_FALSE(stable.empty());
  for (const auto& pair : stable) EXPECT_TRUE(tool.count(pair)) << pair.first << ":" << pair.second;
  std::set<int64_t> stablePids;
  for (const auto& pair : stable) stablePids.insert(pair.first);
  for (const auto& pair : tool) {
    // lsof also reports bound sockets in states other than LISTEN (port 0 and
    // the like); among listening pids every pair must match.
    if (stablePids.count(pair.first) && pair.second != 0) {
      EXPECT_TRUE(pairs(before).count(pair) || latest.count(pair)) << pair.first << ":" << pair.second;
    }
  }
  // Names and users agree too.
  for (const auto& listener : fromLsof) {
    for (const auto& mine : after) {
      if (mine.pid == listener.pid && mine.port == listener.port) {
        EXPECT_EQ(mine.user, listener.user);
      }
    }
  }
}

TEST(PortSources, NetlinkAgreesWithTheTables) {
  ListeningChild child("quorvi tables");
  ASSERT_TRUE(child.ok());
  auto netlink = listeningSocketsFromNetlink();
  auto tables = listeningSocketsFromTables();
  ASSERT_TRUE(tables);
  if (!netlink) GTEST_SKIP() << "no socket diagnostics here";
  auto inodes = [](const std::vector<ListeningSocket>& sockets) {
    std::map<uint64_t, int64_t> map;
    for (const auto& s : sockets) map[s.inode] = s.port;
    return map;
  };
  auto a = inodes(*netlink), b = inodes(*tables);
  size_t childPorts = 0;
  for (const auto& [inode, port] : a) {
    if (port == child.dualStackPort() || port == child.secondPort()) {
      ++childPorts;
      EXPECT_EQ(b.count(inode), 1u);
    }
  }
  EXPECT_EQ(childPorts, 3u);  // two IPv4 sockets and one IPv6
}

TEST(PortSources, MissingProcGivesNoListeners) {
  EXPECT_TRUE(listenersFromProc("/nonexistent-proc").empty());
  EXPECT_FALSE(procNetTcpAvailable("/nonexistent-proc"));
  EXPECT_TRUE(procNetTcpAvailable());
  EXPECT_FALSE(processRowsFromProc("/nonexistent-proc"));
}

}  // namespace
}  // namespace quorvi

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
#include <signal.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>

extern char** environ;

#include "listening_child.h"
#include "processes/port_listener.h"
#include "processes/proc_net_listeners.h"
#include "processes/process_helper.h"
#include "processes/process_table.h"
#include "platform/process_runner.h"

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
  // A rewritten command line is no path: the program is looked up by name,
  // and the process is kept (with an empty path) where it is not found.
  EXPECT_EQ(helper.getProcessPathFromPID(11), findExecutable("sshd"));
  EXPECT_EQ(helper.getProcessNameFromPID(12), "abcdefghijklmno");  // no completion from another name
  fs::create_directories(root / "13");
  write(root / "13/comm", "kworker/0:1\n");
  write(root / "13/cmdline", "");
  EXPECT_FALSE(helper.getProcessPathFromPID(13));  // a kernel thread has no executable
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

TEST(ProcessTable, ResidentSizeIsWhatPsReports) {
  EXPECT_EQ(residentKilobytesOfStatus("Name:\tx\nVmHWM:\t   9000 kB\nVmRSS:\t    8724 kB\nRssAnon:\t 100 kB\n"), 8724);
  EXPECT_EQ(residentKilobytesOfStatus("Name:\tkthreadd\nThreads:\t1\n"), 0);
  EXPECT_EQ(residentKilobytesOfStatus("Name:\tx\nVmRSS:\tgarbage kB\n"), 0);
  // A sleeping child's memory does not move: both readings must agree to
  // the kilobyte (the stat file's resident field is a few percent lower).
  ListeningChild child("quorvi rss");
  ASSERT_TRUE(child.ok());
  auto rows = processRowsFromProc();
  ASSERT_TRUE(rows);
  auto mine = std::find_if(rows->begin(), rows->end(), [&](const ProcessRow& row) { return row.pid == child.pid(); });
  ASSERT_NE(mine, rows->end());
  ProcessResult ps = runProcess("/bin/ps", {"-o", "rss=", "-p", std::to_string(child.pid())});
  ASSERT_TRUE(ps.launched && ps.exitStatus == 0) << ps.standardError;
  EXPECT_EQ(mine->residentKilobytes, std::stoll(ps.standardOutput));
}

// What an unprivileged service sees of another user's processes: the probe
// runs as "nobody" and looks at children of this (root) test.
TEST(ProcessHelper, OtherUsersProcessesKeepTheirNameAndPath) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start processes of another user";
  std::string probe = (fs::read_symlink("/proc/self/exe").parent_path() / "process_probe").string();
  std::string setpriv = findExecutable("setpriv");
  if (setpriv.empty()) GTEST_SKIP() << "setpriv is not installed";
  fs::path folder = fs::temp_directory_path() / ("quorvi-unknown-" + std::to_string(::getpid()));
  fs::create_directories(folder);
  fs::copy_file(fs::canonical("/bin/sleep"), folder / "qvunknownprog");
  struct Child {
    std::string executable;
    std::vector<std::string> argv;
    std::string expectedName;
    std::string expectedPath;
  };
  std::vector<Child> children = {
      {"/bin/sleep", {"/bin/sleep", "30"}, "sleep", "/bin/sleep"},                  // absolute first word
      {"/bin/sleep", {"sleep", "30"}, "sleep", findExecutable("sleep")},             // a bare name
      {"/bin/sleep", {"worker: busy doing x", "30"}, "sleep", findExecutable("sleep")},  // rewritten
      {(folder / "qvunknownprog").string(), {"qvunknownprog", "30"}, "qvunknownprog", ""},  // found nowhere
  };
  std::vector<pid_t> pids;
  for (const auto& child : children) {
    std::vector<char*> argv;
    for (const auto& word : child.argv) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    ASSERT_EQ(::posix_spawn(&pid, child.executable.c_str(), nullptr, nullptr, argv.data(), environ), 0);
    pids.push_back(pid);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // let each exec
  std::vector<std::string> arguments = {"--reuid=65534", "--regid=65534", "--clear-groups", probe};
  for (pid_t pid : pids) arguments.push_back(std::to_string(pid));
  ProcessResult result = runProcess(setpriv, arguments);
  for (pid_t pid : pids) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  fs::remove_all(folder);
  ASSERT_TRUE(result.launched && result.exitStatus == 0) << result.standardError;
  std::istringstream lines(result.standardOutput);
  for (std::size_t i = 0; i < children.size(); ++i) {
    std::string line;
    ASSERT_TRUE(std::getline(lines, line)) << result.standardOutput;
    EXPECT_EQ(line, children[i].expectedName + "|" + children[i].expectedPath + "|root") << i;
  }
}

}  // namespace
}  // namespace quorvi

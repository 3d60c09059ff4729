// ProcessHelper: what the process list needs to know about one process id,
// read from /proc: its name, its executable's path, its owner and its
// thread count. Every answer is empty for a process that has ended (or that
// never existed), so callers simply leave such processes out.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace quorvi {

class ProcessHelper {
 public:
  explicit ProcessHelper(std::string procRoot = "/proc");
  ~ProcessHelper();
  ProcessHelper(const ProcessHelper&) = delete;
  ProcessHelper& operator=(const ProcessHelper&) = delete;

  // The command name (/proc/PID/comm). The kernel keeps only 15 bytes of it,
  // so a name of that length is completed from the command line's first word
  // when that word's file name begins with it.
  std::optional<std::string> getProcessNameFromPID(int64_t pid) const;
  // The same completion for a command name already read elsewhere.
  std::string completedName(int64_t pid, std::string commandName) const;
  // The executable (/proc/PID/exe, without a " (deleted)" mark). Where the
  // link may not be read (another user's process, seen by an unprivileged
  // service), the best that /proc shows: the command line's first word when
  // it is an absolute path, else the program of that name (or of the
  // command name) found on the search path, else "" -- the process is
  // still listed, with its name, owner, processor share and memory. Kernel
  // threads and ended processes have no executable and answer nothing.
  std::optional<std::string> getProcessPathFromPID(int64_t pid) const;
  // The process's sandbox key from /proc/PID/cgroup ("flatpak:APP-ID",
  // "snap:SNAP_APP"), or nothing.
  std::optional<std::string> sandboxKey(int64_t pid) const;
  std::optional<int> threadCount(int64_t pid) const;
  // The owner of /proc/PID, which is the process's effective user.
  std::optional<uid_t> ownerUid(int64_t pid) const;
  std::optional<std::string> userName(int64_t pid) const;
  // The login name of a user id, or the id in decimal when it has none.
  std::string userNameForUid(uid_t uid) const;

 private:
  // "PID/entry", relative to the open /proc folder.
  std::string pidPath(int64_t pid, const char* entry) const;
  std::optional<std::string> firstArgument(int64_t pid) const;
  // Where the program of that name lives ("" when nowhere), looked up once.
  std::string programNamed(const std::string& name) const;

  std::string procRoot_;
  int procFd_ = -1;  // walks from here are shorter than from "/"
  mutable std::mutex userNamesLock_;
  mutable std::map<uid_t, std::string> userNames_;
  mutable std::mutex programsLock_;
  mutable std::map<std::string, std::string> programs_;
};

}  // namespace quorvi

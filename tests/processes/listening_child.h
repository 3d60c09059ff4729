// A child process that listens on real loopback sockets for the length of a
// test: one port over both IPv4 and IPv6, and a second port over IPv4.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace quorvi::testing {

class ListeningChild {
 public:
  // The child's command name (as ps and lsof show it) is `commandName`.
  explicit ListeningChild(const std::string& commandName);
  ~ListeningChild();  // ends and reaps the child
  bool ok() const { return pid_ > 0 && secondPort_ != 0; }
  pid_t pid() const { return pid_; }
  int64_t dualStackPort() const { return dualStackPort_; }
  int64_t secondPort() const { return secondPort_; }

 private:
  pid_t pid_ = -1;
  int release_ = -1;  // closing it lets the child end
  int64_t dualStackPort_ = 0, secondPort_ = 0;
};

// The contents of a file under tests/processes/fixtures.
std::string fixture(const std::string& name);
// A pid that belonged to a process which has ended and been reaped.
pid_t vanishedPid();

}  // namespace quorvi::testing

#include "listening_child.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

namespace quorvi::testing {

namespace {

// Only async-signal-safe calls from here on: the child of a threaded test.
int listenOn(int family, uint16_t port, uint16_t* boundPort) {
  int fd = ::socket(family, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  int yes = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_storage address{};
  socklen_t length;
  if (family == AF_INET) {
    auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof *v4;
  } else {
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(port);
    v6->sin6_addr = in6addr_loopback;
    ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof yes);
    length = sizeof *v6;
  }
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd, 4) != 0) {
    ::close(fd);
    return -1;
  }
  sockaddr_storage bound{};
  socklen_t boundLength = sizeof bound;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &boundLength);
  *boundPort = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in*>(&bound)->sin_port
                                       : reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port);
  return fd;
}

[[noreturn]] void runChild(int report, int release, const char* name) {
  ::prctl(PR_SET_NAME, name, 0, 0, 0);
  uint16_t ports[2] = {0, 0};
  for (int attempt = 0; attempt < 20 && ports[1] == 0; ++attempt) {
    uint16_t v4 = 0, v6 = 0, second = 0;
    int a = listenOn(AF_INET, 0, &v4);
    int b = a >= 0 ? listenOn(AF_INET6, v4, &v6) : -1;  // the same port over IPv6
    int c = b >= 0 ? listenOn(AF_INET, 0, &second) : -1;
    if (c >= 0) {
      ports[0] = v4;
      ports[1] = second;
    } else {
      if (a >= 0) ::close(a);
      if (b >= 0) ::close(b);
    }
  }
  ssize_t ignored = ::write(report, ports, sizeof ports);
  (void)ignored;
  char byte;
  while (::read(release, &byte, 1) > 0) {
  }
  ::_exit(0);
}

}  // namespace

ListeningChild::ListeningChild(const std::string& commandName) {
  int report[2], release[2];
  if (::pipe2(report, O_CLOEXEC) != 0) return;
  if (::pipe2(release, O_CLOEXEC) != 0) return;
  pid_t pid = ::fork();
  if (pid == 0) {
    ::close(report[0]);
    ::close(release[1]);
    runChild(report[1], release[0], commandName.c_str());
  }
  ::close(report[1]);
  ::close(release[0]);
  release_ = release[1];
  uint16_t ports[2] = {0, 0};
  bool reported = pid > 0 && ::read(report[0], ports, sizeof ports) == ssize_t(sizeof ports) && ports[1] != 0;
  ::close(report[0]);
  pid_ = pid;
  if (!reported) return;
  dualStackPort_ = ports[0];
  secondPort_ = ports[1];
}

ListeningChild::~ListeningChild() {
  if (release_ >= 0) ::close(release_);
  if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
}

std::string fixture(const std::string& name) {
  std::ifstream in(std::string(QUORVI_PROCESSES_FIXTURES) + "/" + name, std::ios::binary);
  std::stringstream contents;
  contents << in.rdbuf();
  return contents.str();
}

pid_t vanishedPid() {
  pid_t pid = ::fork();
  if (pid == 0) ::_exit(0);
  ::waitpid(pid, nullptr, 0);
  return pid;
}

}  // namespace quorvi::testing

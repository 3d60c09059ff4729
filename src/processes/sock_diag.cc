// Listening TCP sockets from the kernel's socket diagnostics (sock_diag over
// netlink). Asking for the LISTEN state alone makes the kernel walk only its
// listening hash, where /proc/net/tcp walks every connection bucket.
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "processes/proc_net_listeners.h"

namespace quorvi {

namespace {

constexpr int kListenState = 10;  // TCP_LISTEN in the kernel's numbering

class NetlinkSocket {
 public:
  NetlinkSocket() : fd_(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {}
  ~NetlinkSocket() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

bool requestListeners(int fd, uint8_t family, uint32_t sequence) {
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } message;
  std::memset(&message, 0, sizeof message);
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message.header.nlmsg_seq = sequence;
  message.request.sdiag_family = family;
  message.request.sdiag_protocol = IPPROTO_TCP;
  message.request.idiag_states = 1u << kListenState;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  return ::sendto(fd, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) ==
         ssize_t(sizeof message);
}

// Reads the dump's answers until its end; false on an error answer.
bool readListeners(int fd, uint32_t sequence, std::vector<ListeningSocket>& sockets) {
  alignas(nlmsghdr) char buffer[32768];
  for (;;) {
    ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    for (auto* header = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(header, size_t(got));
         header = NLMSG_NEXT(header, got)) {
      if (header->nlmsg_seq != sequence) continue;
      if (header->nlmsg_type == NLMSG_DONE) return true;
      if (header->nlmsg_type == NLMSG_ERROR) return false;
      if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY || header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) continue;
      const auto* socket = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
      if (socket->idiag_state != kListenState || socket->idiag_inode == 0) continue;
      sockets.push_back({socket->idiag_inode, int64_t(ntohs(socket->id.idiag_sport))});
    }
  }
}

}  // namespace

std::optional<std::vector<ListeningSocket>> listeningSocketsFromNetlink() {
  NetlinkSocket netlink;
  if (netlink.get() < 0) return std::nullopt;
  timeval limit{2, 0};  // the kernel answers at once; never hang on it
  ::setsockopt(netlink.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  std::vector<ListeningSocket> sockets;
  uint32_t sequence = 1;
  for (uint8_t family : {uint8_t(AF_INET), uint8_t(AF_INET6)}) {
    if (!requestListeners(netlink.get(), family, sequence) || !readListeners(netlink.get(), sequence, sockets)) {
      return std::nullopt;
    }
    ++sequence;
  }
  return sockets;
}

}  // namespace quorvi

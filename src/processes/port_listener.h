// PortListener: the TCP ports on which local processes listen, so that the
// process list can show which process holds a port. It keeps no state and
// never fails: every problem reduces to fewer (or no) listeners.
//
// Two sources give the same records. The lsof tool is the portable one; on
// Linux /proc gives the same answer far faster and is used by default.
#pragma once

#include <string>
#include <vector>

#include "processes/listener.h"

namespace quorvi {

enum class PortSource {
  automatic,  // /proc when its TCP tables are readable, lsof otherwise
  procfs,
  lsof,
};

class PortListener {
 public:
  explicit PortListener(PortSource source = PortSource::automatic) : source_(source) {}

  std::vector<Listener> listeners() const;
  // Listeners of these processes only. /proc then looks at no other
  // process's descriptors; lsof lists everything and the rest is dropped.
  std::vector<Listener> listenersOf(const std::vector<int64_t>& pids) const;

  // Runs `lsof -nP +c 0 -iTCP` (lsof from /usr/sbin, /usr/bin or $PATH) and
  // parses its standard output; empty when the tool is missing or fails.
  static std::vector<Listener> listenersFromLsof();
  // The tool's path, or empty when it is not installed.
  static std::string lsofPath();

 private:
  PortSource source_;
};

}  // namespace quorvi

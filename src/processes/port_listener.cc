#include "processes/port_listener.h"

#include <unordered_set>

#include "platform/process_runner.h"
#include "processes/lsof_parser.h"
#include "processes/proc_net_listeners.h"

namespace quorvi {

namespace {

// lsof can stall on unreachable network file systems; a port list that late
// is of no use to the user anyway.
constexpr std::chrono::seconds kLsofTimeout{20};

}  // namespace

std::string PortListener::lsofPath() { return findExecutable("lsof", {"/usr/sbin/lsof", "/usr/bin/lsof"}); }

std::vector<Listener> PortListener::listenersFromLsof() {
  std::string tool = lsofPath();
  if (tool.empty()) return {};
  ProcessOptions options;
  options.timeout = kLsofTimeout;
  ProcessResult result = runProcess(tool, {"-nP", "+c", "0", "-iTCP"}, options);
  // The exit status says nothing useful: lsof answers 1 when it finds no
  // TCP socket at all, and also when some processes could not be read.
  if (!result.launched || result.timedOut) return {};
  return parseLsofOutput(result.standardOutput);
}

std::vector<Listener> PortListener::listeners() const {
  switch (source_) {
    case PortSource::procfs:
      return listenersFromProc();
    case PortSource::lsof:
      return listenersFromLsof();
    case PortSource::automatic:
      break;
  }
  return procNetTcpAvailable() ? listenersFromProc() : listenersFromLsof();
}

std::vector<Listener> PortListener::listenersOf(const std::vector<int64_t>& pids) const {
  bool useProc = source_ == PortSource::procfs || (source_ == PortSource::automatic && procNetTcpAvailable());
  if (useProc) return listenersOfProcesses(pids);
  std::unordered_set<int64_t> wanted(pids.begin(), pids.end());
  std::vector<Listener> listeners = listenersFromLsof();
  std::erase_if(listeners, [&](const Listener& listener) { return !wanted.count(listener.pid); });
  return listeners;
}

}  // namespace quorvi

// The process table's sources: `ps -eo pid,ppid,pcpu,rss` output, one
// /proc/PID/stat line, and a /proc/net/tcp table.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "processes/proc_net_listeners.h"
#include "processes/process_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  quorvi::parsePsOutput(text);
  quorvi::parseProcStat(text, 12345.67, 100, 4);
  quorvi::parseProcStat(text, 0.0, 100, 4);
  quorvi::parseProcNetTcp(text);
  return 0;
}

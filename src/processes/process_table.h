// The process table: one row per process with its parent, processor share
// and resident memory. Read from `ps -eo pid,ppid,pcpu,rss` (run through
// /bin/sh), or on Linux straight from /proc/PID/stat and /proc/PID/status,
// which give the same columns computed the way ps computes them without
// starting two processes (the resident size is status's VmRSS, as ps
// reads it; stat's own resident field lags a few percent behind).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

struct ProcessRow {
  int32_t pid = 0;
  int32_t ppid = 0;
  std::string cpu;           // processor share in percent, as ps prints it ("0.3")
  int64_t residentKilobytes = 0;
  // Known when the row came from /proc, which saves reading them again:
  std::optional<std::string> commandName;  // the kernel's command name
  std::optional<uid_t> ownerUid;           // the process's owner
  bool isKernelThread = false;             // no executable, nothing to quit
};

// Rows of the tool's output: the first line (the header) is skipped, and so
// are lines whose process id is not a 32-bit decimal number and lines of
// fewer than four columns. Nothing when the output is not valid UTF-8.
std::optional<std::vector<ProcessRow>> parsePsOutput(std::string_view output);

// Runs the tool; nothing when it cannot be run or its output is unusable.
std::optional<std::vector<ProcessRow>> processRowsFromPs();

// The same rows from /proc, ascending by pid; nothing when /proc is absent.
std::optional<std::vector<ProcessRow>> processRowsFromProc(const std::string& procRoot = "/proc");

// One /proc/PID/stat line as a row, given the system's uptime in seconds;
// nothing when the line is malformed.
std::optional<ProcessRow> parseProcStat(std::string_view stat, double uptimeSeconds, long ticksPerSecond,
                                        long pageKilobytes);
// The VmRSS line of a /proc/PID/status text in kilobytes; 0 when there is
// none (kernel threads, processes being torn down).
int64_t residentKilobytesOfStatus(std::string_view status);
// The processor share as ps prints it: permille of the process's lifetime,
// "12.3", or whole percent once it reaches 100.
std::string formatProcessorShare(uint64_t cpuTicks, uint64_t startTicks, double uptimeSeconds,
                                 long ticksPerSecond);

}  // namespace quorvi

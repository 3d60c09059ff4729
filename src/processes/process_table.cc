#include "processes/process_table.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "platform/process_runner.h"
#include "processes/proc_files.h"
#include "processes/text_util.h"

namespace quorvi {

namespace {

constexpr std::string_view kPsCommand = "ps -eo pid,ppid,pcpu,rss";
constexpr std::chrono::seconds kPsTimeout{20};

std::optional<int32_t> parsePid(std::string_view piece) {
  auto value = text::parseDecimal(piece);
  if (!value || *value < INT32_MIN || *value > INT32_MAX) return std::nullopt;
  return int32_t(*value);
}

// Fields of /proc/PID/stat after the command name, counted from "state" = 0.
constexpr size_t kParentField = 1;
constexpr size_t kUserTimeField = 11;
constexpr size_t kSystemTimeField = 12;
constexpr size_t kStartTimeField = 19;
constexpr size_t kFlagsField = 6;
constexpr size_t kResidentPagesField = 21;
constexpr int64_t kKernelThreadFlag = 0x00200000;  // PF_KTHREAD

}  // namespace

std::optional<std::vector<ProcessRow>> parsePsOutput(std::string_view output) {
  if (!text::isValidUtf8(output)) return std::nullopt;
  std::vector<ProcessRow> rows;
  size_t start = output.find('\n');  // the first line is the header
  while (start != std::string_view::npos && start < output.size()) {
    ++start;
    size_t end = output.find('\n', start);
    auto pieces = text::splitAtWhiteSpace(output.substr(start, end == std::string_view::npos ? end : end - start));
    start = end;
    if (pieces.size() < 4) continue;
    auto pid = parsePid(pieces[0]);
    if (!pid) continue;
    ProcessRow row;
    row.pid = *pid;
    row.ppid = parsePid(pieces[1]).value_or(0);
    row.cpu = std::string(pieces[2]);
    row.residentKilobytes = text::parseDecimal(pieces[3]).value_or(0);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::optional<std::vector<ProcessRow>> processRowsFromPs() {
  ProcessOptions options;
  options.timeout = kPsTimeout;
  options.captureStandardError = false;
  ProcessResult result = runProcess("/bin/sh", {"-c", std::string(kPsCommand)}, options);
  if (!result.launched || result.timedOut || result.standardOutput.empty()) return std::nullopt;
  return parsePsOutput(result.standardOutput);
}

std::string formatProcessorShare(uint64_t cpuTicks, uint64_t startTicks, double uptimeSeconds,
                                 long ticksPerSecond) {
  if (ticksPerSecond <= 0) return "0.0";
  uint64_t uptime = uptimeSeconds > 0 ? uint64_t(uptimeSeconds) : 0;
  uint64_t started = startTicks / uint64_t(ticksPerSecond);
  uint64_t lifetime = uptime > started ? uptime - started : 0;
  uint64_t permille = lifetime ? (cpuTicks * 1000 / uint64_t(ticksPerSecond)) / lifetime : 0;
  if (permille > 999) return std::to_string(permille / 10);
  return std::to_string(permille / 10) + "." + std::to_string(permille % 10);
}

std::optional<ProcessRow> parseProcStat(std::string_view stat, double uptimeSeconds, long ticksPerSecond,
                                        long pageKilobytes) {
  // "pid (command name) state ppid ...": the name may hold blanks and
  // parentheses, so it ends at the last ')'.
  size_t open = stat.find(" (");
  size_t close = stat.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  auto pid = parsePid(stat.substr(0, open));
  auto fields = text::splitAtWhiteSpace(stat.substr(close + 1));
  if (!pid || fields.size() <= kResidentPagesField) return std::nullopt;
  auto number = [&](size_t field) { return text::parseDecimal(fields[field]).value_or(0); };
  ProcessRow row;
  row.pid = *pid;
  row.ppid = parsePid(fields[kParentField]).value_or(0);
  uint64_t cpuTicks = uint64_t(std::max<int64_t>(0, number(kUserTimeField))) +
                      uint64_t(std::max<int64_t>(0, number(kSystemTimeField)));
  row.cpu = formatProcessorShare(cpuTicks, uint64_t(std::max<int64_t>(0, number(kStartTimeField))), uptimeSeconds,
                                 ticksPerSecond);
  // A damaged or hostile field must not overflow the product.
  const int64_t pages = std::clamp<int64_t>(number(kResidentPagesField), 0,
                                            INT64_MAX / std::max<long>(1, pageKilobytes));
  row.residentKilobytes = pages * pageKilobytes;
  row.commandName = std::string(stat.substr(open + 2, close - open - 2));
  row.isKernelThread = (number(kFlagsField) & kKernelThreadFlag) != 0;
  return row;
}

int64_t residentKilobytesOfStatus(std::string_view status) {
  constexpr std::string_view kKey = "\nVmRSS:";
  size_t at = status.find(kKey);
  if (at == std::string_view::npos) return 0;
  auto pieces = text::splitAtWhiteSpace(status.substr(at + kKey.size(), 40));
  if (pieces.empty()) return 0;
  return std::max<int64_t>(0, text::parseDecimal(pieces[0]).value_or(0));
}

std::optional<std::vector<ProcessRow>> processRowsFromProc(const std::string& procRoot) {
  procfs::DirectoryFd procDir(procRoot);
  auto uptimeText = procfs::readSmallFile(procRoot + "/uptime");
  if (!procDir.isOpen() || !uptimeText) return std::nullopt;
  double uptime = std::atof(uptimeText->c_str());
  long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
  long pageKilobytes = ::sysconf(_SC_PAGESIZE) / 1024;
  std::vector<int64_t> pids = procfs::numericEntries(procDir.get());
  auto readRows = [&](size_t begin, size_t end, std::vector<ProcessRow>& rows) {
    for (size_t i = begin; i < end; ++i) {
      std::string relative = std::to_string(pids[i]) + "/stat";
      struct stat owner;
      auto stat = procfs::readOneRecord(procDir.get(), relative.c_str(), &owner);
      if (!stat) continue;  // ended since the folder was listed
      if (auto row = parseProcStat(*stat, uptime, ticksPerSecond, pageKilobytes)) {
        row->ownerUid = owner.st_uid;  // /proc gives a process's files to its owner
        if (!row->isKernelThread) {
          std::string statusPath = std::to_string(pids[i]) + "/status";
          auto status = procfs::readOneRecord(procDir.get(), statusPath.c_str());
          if (status) row->residentKilobytes = residentKilobytesOfStatus(*status);
        }
        rows.push_back(std::move(*row));
      }
    }
  };
  std::vector<ProcessRow> rows = procfs::inTwoHalves<ProcessRow>(pids.size(), readRows);
  if (rows.empty()) return std::nullopt;
  return rows;
}

}  // namespace quorvi

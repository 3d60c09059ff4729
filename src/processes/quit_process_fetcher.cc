#include "processes/quit_process_fetcher.h"

#include <algorithm>
#include <thread>
#include <unordered_map>

#include "pinyin/pinyin_mapper.h"
#include "processes/text_util.h"

namespace quorvi {

namespace {

void addMatch(std::vector<std::string>& matchs, std::string key) {
  if (key.empty() || std::find(matchs.begin(), matchs.end(), key) != matchs.end()) return;
  matchs.push_back(std::move(key));
}

std::optional<ProcessEntry> entryFromRow(const ProcessRow& row, const ProcessHelper& helper) {
  if (row.isKernelThread) return std::nullopt;
  auto name = row.commandName ? std::optional(helper.completedName(row.pid, *row.commandName))
                              : helper.getProcessNameFromPID(row.pid);
  if (!name) return std::nullopt;
  auto path = helper.getProcessPathFromPID(row.pid);
  if (!path) return std::nullopt;
  auto user = row.ownerUid ? std::optional(helper.userNameForUid(*row.ownerUid)) : helper.userName(row.pid);
  if (!user) return std::nullopt;  // ended since the table was read
  ProcessEntry entry;
  entry.pid = row.pid;
  entry.ppid = row.ppid;
  entry.name = std::move(*name);
  entry.path = std::move(*path);
  entry.cpu = row.cpu;
  entry.mem = std::clamp<int64_t>(row.residentKilobytes, 0, INT64_MAX / 1024) * 1024;  // bytes
  entry.user = std::move(*user);
  entry.matchs.push_back(std::to_string(row.pid));
  addMatch(entry.matchs, text::asciiLowercase(entry.name));
  addMatch(entry.matchs, text::asciiLowercase(text::lastPathComponent(entry.path)));
  return entry;
}

ProcessEntry applicationEntry(ProcessEntry entry, const DesktopApplication& application) {
  entry.activationPolicy = kActivationPolicyRegular;
  entry.name = application.name;
  entry.path = application.filePath;
  entry.bundleIdentifier = application.desktopId;
  addMatch(entry.matchs, text::asciiLowercase(application.name));
  if (PinyinMapper::containsChinese(application.name)) {  // "wjgl" finds 文件管理
    auto forms = PinyinMapper::shared().map(application.name);
    for (auto& form : forms.fullPinyins) addMatch(entry.matchs, std::move(form));
    for (auto& form : forms.initials) addMatch(entry.matchs, std::move(form));
  }
  std::string id = application.desktopId;
  if (id.ends_with(".desktop")) id.resize(id.size() - 8);
  addMatch(entry.matchs, text::asciiLowercase(id));
  return entry;
}

}  // namespace

std::vector<ProcessEntry> entriesFromRows(const std::vector<ProcessRow>& rows, const ProcessHelper& helper) {
  std::vector<ProcessEntry> entries;
  entries.reserve(rows.size());
  for (const auto& row : rows) {
    if (auto entry = entryFromRow(row, helper)) entries.push_back(std::move(*entry));
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const ProcessEntry& a, const ProcessEntry& b) { return a.name < b.name; });
  return entries;
}

std::vector<ProcessEntry> regularApplicationEntries(const std::vector<ProcessEntry>& allProcesses,
                                                    const std::vector<DesktopApplication>& applications,
                                                    const SandboxLookup& sandboxOf) {
  // The list comes preferred-first: of several entries for one program the
  // first is kept.
  std::unordered_map<std::string, const DesktopApplication*> byProgram, byFileName, bySandbox;
  for (const auto& application : applications) {
    if (application.isFileManager) continue;
    if (!application.program.empty()) {
      byProgram.emplace(application.program, &application);
      byFileName.emplace(application.programFileName, &application);
    }
    if (!application.sandboxKey.empty()) bySandbox.emplace(application.sandboxKey, &application);
  }
  std::unordered_map<int64_t, const DesktopApplication*> applicationOfPid;
  for (const auto& entry : allProcesses) {
    const DesktopApplication* application = nullptr;
    if (auto found = byProgram.find(entry.path); found != byProgram.end()) {
      application = found->second;
    } else if (auto named = byFileName.find(entry.name); named != byFileName.end()) {
      application = named->second;
    } else if (!bySandbox.empty() && sandboxOf) {
      if (auto key = sandboxOf(entry.pid)) {
        if (auto sandboxed = bySandbox.find(*key); sandboxed != bySandbox.end()) application = sandboxed->second;
      }
    }
    if (application) applicationOfPid.emplace(entry.pid, application);
  }
  std::vector<ProcessEntry> entries;
  for (const auto& entry : allProcesses) {
    auto mine = applicationOfPid.find(entry.pid);
    if (mine == applicationOfPid.end()) continue;
    auto parent = applicationOfPid.find(entry.ppid);
    if (parent != applicationOfPid.end() && parent->second == mine->second) continue;  // a helper of it
    entries.push_back(applicationEntry(entry, *mine->second));
  }
  std::stable_sort(entries.begin(), entries.end(), [](const ProcessEntry& a, const ProcessEntry& b) {
    std::string left = text::asciiLowercase(a.name), right = text::asciiLowercase(b.name);
    return left != right ? left < right : a.pid < b.pid;
  });
  return entries;
}

std::vector<ProcessEntry> listeningEntries(const std::vector<ProcessEntry>& allProcesses,
                                           const std::vector<Listener>& listeners) {
  std::unordered_map<int64_t, const ProcessEntry*> byPid;
  for (const auto& entry : allProcesses) byPid.emplace(entry.pid, &entry);
  std::vector<ProcessEntry> entries;
  for (const auto& listener : listeners) {
    auto found = byPid.find(listener.pid);
    if (found == byPid.end()) continue;
    ProcessEntry entry = *found->second;
    entry.port = listener.port;
    addMatch(entry.matchs, std::to_string(listener.port));
    entries.push_back(std::move(entry));
  }
  return entries;
}

std::optional<std::vector<ProcessRow>> QuitProcessFetcher::processRows() const {
  switch (options_.tableSource) {
    case ProcessTableSource::procfs:
      return processRowsFromProc();
    case ProcessTableSource::ps:
      return processRowsFromPs();
    case ProcessTableSource::automatic:
      break;
  }
  if (auto rows = processRowsFromProc()) return rows;
  return processRowsFromPs();
}

std::optional<RunningProcesses> QuitProcessFetcher::fetch() const {
  auto rows = processRows();
  if (!rows) return std::nullopt;
  // Only processes of the table can have a port entry, and kernel threads
  // hold no descriptors: the port query looks at the others, beside the
  // rest of the work on the table. A process that starts meanwhile would
  // have no entry anyway; one that ends leaves its listeners without one.
  std::vector<int64_t> candidates;
  candidates.reserve(rows->size());
  for (const auto& row : *rows) {
    if (!row.isKernelThread) candidates.push_back(row.pid);
  }
  std::vector<Listener> listeners;
  std::thread portQuery([&] {
    try {
      listeners = PortListener(options_.portSource).listenersOf(candidates);
    } catch (...) {
      listeners.clear();  // a failed port query only leaves portProcesses empty
    }
  });
  RunningProcesses result;
  try {
    ProcessHelper helper;
    result.allProcesses = entriesFromRows(*rows, helper);
    DesktopApplicationCatalog& catalog = options_.catalog ? *options_.catalog : DesktopApplicationCatalog::shared();
    result.normalProcesses = regularApplicationEntries(
        result.allProcesses, catalog.applications(options_.language),
        [&helper](int64_t pid) { return helper.sandboxKey(pid); });
  } catch (...) {
    portQuery.join();
    throw;
  }
  portQuery.join();
  result.portProcesses = listeningEntries(result.allProcesses, listeners);
  return result;
}

}  // namespace quorvi

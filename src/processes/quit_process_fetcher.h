// QuitProcessFetcher: the list behind the launcher's "quit a process" and
// "free a port" commands. It combines the process table, the running
// regular applications (recognised through the desktop entries) and the
// listening TCP ports into one RunningProcesses record.
//
// - allProcesses: every process of the table whose name and executable can
//   be read, sorted by name (plain byte order, stable, so equal names keep
//   the table's pid order). Kernel threads and processes that end meanwhile
//   are left out.
// - normalProcesses: the regular applications. A process is one when its
//   executable is the program of an installed desktop entry's Exec line (or
//   its name is that program's file name, for launchers that hand over to a
//   same-named binary), or it runs in a sandboxed (Flatpak, Snap)
//   application's control group, and its parent is not already that
//   application (a browser is listed once, not once per helper process). File managers are
//   never offered. Each carries the entry's localised name, the desktop file
//   as `path` and the desktop file id as `bundleIdentifier`. Sorted by name
//   ignoring ASCII case, then by pid.
// - portProcesses: one copy of a process per listening port, in the order
//   of the port source, with `port` set.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/language.h"
#include "processes/desktop_applications.h"
#include "processes/listener.h"
#include "processes/port_listener.h"
#include "processes/process_entry.h"
#include "processes/process_helper.h"
#include "processes/process_table.h"

namespace quorvi {

enum class ProcessTableSource {
  automatic,  // /proc when present, the ps tool otherwise
  procfs,
  ps,
};

struct ProcessFetchOptions {
  ProcessTableSource tableSource = ProcessTableSource::automatic;
  PortSource portSource = PortSource::automatic;
  SupportedLanguage language = SupportedLanguage::english;
  DesktopApplicationCatalog* catalog = nullptr;  // nullptr: the shared catalog
};

class QuitProcessFetcher {
 public:
  explicit QuitProcessFetcher(ProcessFetchOptions options = {}) : options_(options) {}

  // Nothing when the process table cannot be read; a failed port query only
  // leaves portProcesses empty. The port query runs on a thread of its own
  // once the table is read; allocation failures come out as exceptions.
  std::optional<RunningProcesses> fetch() const;

 private:
  std::optional<std::vector<ProcessRow>> processRows() const;

  ProcessFetchOptions options_;
};

// The steps of a fetch, each on plain values.
std::vector<ProcessEntry> entriesFromRows(const std::vector<ProcessRow>& rows, const ProcessHelper& helper);
// sandboxOf(pid) gives a process's sandbox key (see desktop_applications.h);
// it is asked only for processes no program matched, and only when some
// application is sandboxed.
using SandboxLookup = std::function<std::optional<std::string>(int64_t pid)>;
std::vector<ProcessEntry> regularApplicationEntries(const std::vector<ProcessEntry>& allProcesses,
                                                    const std::vector<DesktopApplication>& applications,
                                                    const SandboxLookup& sandboxOf = {});
std::vector<ProcessEntry> listeningEntries(const std::vector<ProcessEntry>& allProcesses,
                                           const std::vector<Listener>& listeners);

}  // namespace quorvi

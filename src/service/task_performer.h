// Named tasks: actions of the launcher (opening documents, driving terminals
// and browsers, ending processes, ...) that its companion executable carries
// out. The service only checks the name against the fixed list, finds the
// executable and starts it with the task's name followed by the caller's
// arguments, either without waiting or returning what it printed.
//
// Where the companion executable is:
//  1. the settings key "com.quorvi.taskExecutablePath", when it names a path;
//  2. else the launcher's own install: its desktop entry
//     "com.meltrane.quorvi.desktop" (searched in $XDG_DATA_HOME/applications,
//     then each $XDG_DATA_DIRS/applications), whose Exec= program, resolved
//     through $PATH and symbolic links, lives in a folder; the companion is
//     <that folder>/Executables/QuorviHelper;
//  3. else there is none, and every task answers nothing.
// The file itself is not checked here; a missing file shows as a failed launch.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/json.h"

namespace quorvi {

class Settings;

enum class QuorviTask {
#define QUORVI_TASK(name) name,
#include "service/task_names.def"
#undef QUORVI_TASK
};
inline constexpr int kQuorviTaskCount = 64;

// Exact, case-sensitive: "openDocuement" is a task, "openDocument" is not.
std::optional<QuorviTask> parseQuorviTask(std::string_view name);
const char* rawValue(QuorviTask task);

class QuorviTaskPerformer {
 public:
  // Tasks with a reply running beyond this many are refused (answer nil), so
  // that a flood of calls cannot exhaust the machine.
  static constexpr int kMaxRunningTasks = 64;
  // Fire-and-forget tasks are counted on their own (they may run for long,
  // a terminal or an editor the companion opened); beyond this many running,
  // a new one is ignored.
  static constexpr int kMaxDetachedTasks = 256;
  // A task with a reply that runs longer is ended and answers nil, so that a
  // hung companion cannot hold a request forever.
  static constexpr std::chrono::seconds kReplyTimeout{120};

  static QuorviTaskPerformer& shared();
  explicit QuorviTaskPerformer(std::optional<std::string> executablePath);

  static std::optional<std::string> locateExecutable(const Settings& settings);
  // The Exec= program of a desktop entry, resolved; nullopt when none.
  static std::optional<std::string> programOfDesktopEntry(const std::string& desktopFile);

  const std::optional<std::string>& executableURL() const { return executableURL_; }

  // Fire and forget: starts the task and returns (call it off the bus
  // thread: the first use finds the executable on disk). Unknown names and a
  // missing executable are ignored.
  void perform(std::string_view name, const std::vector<std::string>& arguments);
  // Runs the task on a thread of its own and calls done with its standard
  // output (empty bytes when it printed nothing), or nullopt for an unknown
  // name, a missing executable, a failed launch, a timeout or too many tasks.
  void performWithReply(std::string_view name, const std::vector<std::string>& arguments,
                        std::function<void(OptionalBytes)> done);

  // Tasks with a reply that are running; fire-and-forget ones still running.
  int runningTasks() const { return running_.load(); }
  int detachedTasks() const { return detached_.load(); }

 private:
  static bool reserveSlot(std::atomic<int>& counter, int limit);
  std::optional<std::string> executableURL_;
  std::atomic<int> running_{0};
  std::atomic<int> detached_{0};
};

}  // namespace quorvi

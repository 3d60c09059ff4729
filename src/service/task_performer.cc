#include "service/task_performer.h"

#include <climits>
#include <cstdlib>
#include <sstream>
#include <thread>

#include "common/settings.h"
#include "platform/paths.h"
#include "platform/process_runner.h"
#include "platform/safe_file.h"
#include "service/members.h"

namespace quorvi {

namespace {

const char* const kTaskNames[] = {
#define QUORVI_TASK(name) #name,
#include "service/task_names.def"
#undef QUORVI_TASK
};
static_assert(sizeof kTaskNames / sizeof kTaskNames[0] == kQuorviTaskCount);

// The first word of an Exec= value, with the desktop-entry quoting removed.
std::string firstExecWord(const std::string& exec) {
  std::string word;
  std::size_t i = 0;
  while (i < exec.size() && exec[i] == ' ') ++i;
  if (i < exec.size() && exec[i] == '"') {
    for (++i; i < exec.size() && exec[i] != '"'; ++i) {
      if (exec[i] == '\\' && i + 1 < exec.size()) ++i;
      word += exec[i];
    }
  } else {
    while (i < exec.size() && exec[i] != ' ') word += exec[i++];
  }
  return word;
}

}  // namespace

std::optional<QuorviTask> parseQuorviTask(std::string_view name) {
  for (int i = 0; i < kQuorviTaskCount; ++i) {
    if (name == kTaskNames[i]) return static_cast<QuorviTask>(i);
  }
  return std::nullopt;
}

const char* rawValue(QuorviTask task) { return kTaskNames[static_cast<int>(task)]; }

QuorviTaskPerformer& QuorviTaskPerformer::shared() {
  static auto* performer = new QuorviTaskPerformer(locateExecutable(Settings::shared()));
  return *performer;
}

QuorviTaskPerformer::QuorviTaskPerformer(std::optional<std::string> executablePath)
    : executableURL_(std::move(executablePath)) {}

std::optional<std::string> QuorviTaskPerformer::programOfDesktopEntry(const std::string& desktopFile) {
  // Found on disk: a FIFO or device named like the entry must not block us.
  auto text = readRegularFile(desktopFile, kSmallTextFileCap);
  if (!text) return std::nullopt;
  std::istringstream in(*text);
  bool inMainGroup = false;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("[")) {
      inMainGroup = line == "[Desktop Entry]";
      continue;
    }
    if (!inMainGroup || !line.starts_with("Exec=")) continue;
    std::string program = firstExecWord(line.substr(5));
    if (program.empty()) return std::nullopt;
    if (program.find('/') == std::string::npos) program = findExecutable(program);
    if (program.empty()) return std::nullopt;
    char resolved[PATH_MAX];
    if (::realpath(program.c_str(), resolved)) program = resolved;
    return program;
  }
  return std::nullopt;
}

std::optional<std::string> QuorviTaskPerformer::locateExecutable(const Settings& settings) {
  if (auto configured = settings.stringValue(Settings::kTaskExecutableKey); configured && !configured->empty()) {
    return expandTilde(*configured);
  }
  std::vector<std::string> folders{xdgDataHome()};
  for (const auto& dir : xdgDataDirs()) folders.push_back(dir);
  for (const auto& folder : folders) {
    auto program = programOfDesktopEntry(folder + "/applications/" + Settings::kSuiteName + ".desktop");
    if (!program) continue;
    auto slash = program->rfind('/');
    return program->substr(0, slash) + "/Executables/QuorviHelper";
  }
  return std::nullopt;
}

bool QuorviTaskPerformer::reserveSlot(std::atomic<int>& counter, int limit) {
  if (counter.fetch_add(1) >= limit) {
    counter.fetch_sub(1);
    return false;
  }
  return true;
}

void QuorviTaskPerformer::perform(std::string_view name, const std::vector<std::string>& arguments) {
  auto task = parseQuorviTask(name);
  if (!task || !executableURL_) return;
  std::vector<std::string> argv{rawValue(*task)};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  // Counted apart from the tasks with a reply: a companion left running by a
  // fire-and-forget task must never take a place that a reply waits for.
  if (!reserveSlot(detached_, kMaxDetachedTasks)) return;
  if (!launchDetached(*executableURL_, argv, [this] { detached_.fetch_sub(1); })) detached_.fetch_sub(1);
}

void QuorviTaskPerformer::performWithReply(std::string_view name, const std::vector<std::string>& arguments,
                                           std::function<void(OptionalBytes)> done) {
  auto task = parseQuorviTask(name);
  if (!task || !executableURL_ || !reserveSlot(running_, kMaxRunningTasks)) {
    done(std::nullopt);
    return;
  }
  std::vector<std::string> argv{rawValue(*task)};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  // A thread of its own: the task may run for a long time, and the shared
  // pool must stay free for quick requests meanwhile.
  std::thread([this, argv = std::move(argv), done = std::move(done)] {
    ProcessOptions options;
    options.timeout = kReplyTimeout;
    options.captureStandardError = false;
    options.maxOutputBytes = kMaxReplyArrayBytes + 1;  // more than fits a reply answers nil anyway
    ProcessResult result = runProcess(*executableURL_, argv, options);
    running_.fetch_sub(1);
    if (!result.launched || result.timedOut) {
      done(std::nullopt);
    } else {
      done(std::move(result.standardOutput));
    }
  }).detach();
}

}  // namespace quorvi

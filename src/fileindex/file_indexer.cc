#include "fileindex/file_indexer.h"

#include <dirent.h>
#include <malloc.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <unordered_map>

#include "common/event_log.h"
#include "common/notification_center.h"
#include "fileindex/scope_scan.h"
#include "platform/paths.h"

namespace quorvi {

namespace {

double monotonicSeconds() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

std::string randomUUID() {
  std::random_device device;
  std::mt19937_64 generator((static_cast<uint64_t>(device()) << 32) ^ device());
  uint64_t high = generator(), low = generator();
  high = (high & 0xFFFFFFFFFFFF0FFFull) | 0x4000;            // version 4
  low = (low & 0x3FFFFFFFFFFFFFFFull) | 0x8000000000000000ull;  // variant
  char text[40];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(high >> 32),
                static_cast<unsigned>((high >> 16) & 0xFFFF), static_cast<unsigned>(high & 0xFFFF),
                static_cast<unsigned>(low >> 48), static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFull));
  return text;
}

// "~" and "~/x" expanded against the given home; trailing slashes dropped.
std::vector<std::string> expandedScopes(const std::vector<std::string>& scopes, const std::string& home) {
  std::vector<std::string> expanded;
  for (const auto& scope : scopes) {
    std::string path = scope.starts_with("~") ? home + scope.substr(1) : scope;
    expanded.push_back(normalizedScope(path));
  }
  return expanded;
}

bool isMainThread() { return DispatchQueue::main().isCurrent(); }

bool hasSuffixIgnoringCase(std::string_view name, std::string_view suffix) {
  if (name.size() < suffix.size()) return false;
  std::string_view tail = name.substr(name.size() - suffix.size());
  for (std::size_t i = 0; i < suffix.size(); ++i) {
    char c = tail[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    if (c != suffix[i]) return false;
  }
  return true;
}

std::string formatSeconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f s", seconds);
  return text;
}

}  // namespace

void FileIndexSnapshot::forEach(const std::function<bool(const FileTable&, std::size_t)>& visit) const {
  for (const auto& segment : segments_) {
    for (std::size_t row = 0; row < segment->size(); ++row) {
      if (segment.isLive(row) && !visit(*segment, row)) return;
    }
  }
}

std::size_t FileIndexSnapshot::count() const {
  std::size_t total = 0;
  for (const auto& segment : segments_) total += segment.liveCount();
  return total;
}

FileIndexer& FileIndexer::shared() {
  static auto* indexer = new FileIndexer(FilterEnvironment::standard(), /*logsToStandardOutput=*/true);
  return *indexer;
}

FileIndexer::FileIndexer(FilterEnvironment environment, bool logsToStandardOutput, FileEvents* fileEvents)
    : environment_(std::move(environment)),
      logsToStandardOutput_(logsToStandardOutput),
      fseventQueue_(DispatchQueue::makeSerial("com.quorvi.fsevent", QualityOfService::background)),
      fseventOperationQueue_(DispatchQueue::makeSerial("com.quorvi.fsevent.operation", QualityOfService::background)),
      fileEventWatcherIdentifier_(randomUUID()),
      fileEvents_(fileEvents ? *fileEvents : FileEvents::shared()) {
  std::lock_guard guard(stateMutex_);
  setScopes({});
}

FileIndexer::~FileIndexer() {
  generation_.fetch_add(1);
  *alive_ = false;
  fileEvents_.stopWatching(fileEventWatcherIdentifier_, /*keepsHistory=*/false);
  fileEvents_.waitUntilIdle();
  fseventOperationQueue_->sync([] {});
  waitForPendingChanges();
}

void FileIndexer::post() { NotificationCenter::shared().post(kFileIndexStateDidChange); }

void FileIndexer::log(const std::string& line) const {
  if (!logsToStandardOutput_) return;
  std::fprintf(stdout, "%s\n", line.c_str());
  std::fflush(stdout);
}

void FileIndexer::waitForPendingChanges() {
  fseventQueue_->sync([] {});
}

void FileIndexer::waitForUpkeep() {
  // Events may sit in the reader, the service's queue, the throttler (a
  // short delay), the operation queue and the mutation queue in turn.
  for (int quiet = 0, round = 0; quiet < 3 && round < 2000; ++round) {
    fileEvents_.waitUntilIdle();
    waitForPendingChanges();
    fseventOperationQueue_->sync([] {});
    waitForPendingChanges();
    bool idle = !upkeep_.hasPending() && !commitPending_.load();
    quiet = idle ? quiet + 1 : 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(idle ? 20 : 5));
  }
}

void FileIndexer::setScopes(std::vector<std::string> scopes) {
  searchScopes_ = std::move(scopes);
  filter_ = std::make_shared<const Filter>(Filter::build(searchScopes_, environment_));
  rules_ = std::make_shared<const ScopeRules>(searchScopes_, filter_, environment_.homeDirectory);
}

// --- scope changes ---

void FileIndexer::startIndexing(std::vector<std::string> scopes) {
  if (!isMainThread()) return;
  scopes = expandedScopes(scopes, environment_.homeDirectory);
  const double startTime = monotonicSeconds();
  const double startWallTime = secondsSince1970();
  const uint64_t generation = generation_.fetch_add(1) + 1;
  // A new run: the old watching and whatever it noted are over.
  fileEvents_.stopWatching(fileEventWatcherIdentifier_, /*keepsHistory=*/false);
  upkeep_.clear();
  if (scopes.empty()) {
    fileRef_.replace({});
    {
      std::lock_guard guard(stateMutex_);
      setScopes({});
      isIndexing_ = false;
      indexResultDescription_ = FileIndexResultDescription{true, 0, 0, secondsSince1970()};
      indexDescription_.reset();
      fseventHasChanged_ = false;
      streamID_.reset();
      watching_ = false;
    }
    post();
    return;
  }
  {
    std::lock_guard guard(stateMutex_);
    setScopes(scopes);
    isIndexing_ = true;
    fseventHasChanged_ = false;
    indexDescription_ = "";
    streamID_.reset();
    watching_ = false;
    indexResultDescription_.reset();
  }
  post();
  fseventQueue_->async([this, generation, startTime, startWallTime] { runScan(generation, startTime, startWallTime); });
}

void FileIndexer::runScan(uint64_t generation, double startTime, double startWallTime) {
  if (generation_.load() != generation) return;  // superseded before it began
  std::shared_ptr<const ScopeRules> rules = this->rules();
  ScopeScan scan(*rules);
  scan.setCancellation(&generation_, generation);
  scanProgress_ = 0;
  scan.setProgressCounter(&scanProgress_);
  ScanResult result = scan.run();
  scanProgress_ = 0;
  if (result.cancelled || generation_.load() != generation) return;
  fileRef_.replace({Segment{result.table, nullptr, 0}});
  result = {};
  malloc_trim(0);  // the walk's buffers are gone; give their pages back
  const int64_t count = static_cast<int64_t>(fileRef_.count());
  const double took = monotonicSeconds() - startTime;
  std::string description = "#fs ends " + std::to_string(count) + " in " + formatSeconds(took);
  {
    std::lock_guard guard(stateMutex_);
    if (generation_.load() != generation) return;
    consumeTime_ = took;
    lastRunSeconds_ = took;
    isIndexing_ = false;
    indexResultDescription_ = FileIndexResultDescription{true, count, took, secondsSince1970()};
    indexDescription_ = description;
    watching_ = true;
  }
  runs_.fetch_add(1);
  lastRunTime_ = took;
  post();
  log(description);
  // Folders that changed while they were walked are compared again once
  // they are watched (a second of slack for coarse folder times).
  watch(std::nullopt, startWallTime - 1);
}

void FileIndexer::watch(std::optional<FileEventID> sinceWhen, double changedSince) {
  std::shared_ptr<const ScopeRules> rules = this->rules();
  if (rules->scopes().empty()) {
    fileEvents_.stopWatching(fileEventWatcherIdentifier_, /*keepsHistory=*/false);
    return;
  }
  FileWatchOptions options;
  options.watchesFolder = [rules](std::string_view folder) { return rules->entersChild(folder); };
  options.reportsFoldersChangedSince = changedSince;
  std::weak_ptr<std::atomic<bool>> alive = alive_;
  fileEvents_.startWatching(
      rules->scopes(), fileEventWatcherIdentifier_, fseventQueue_, sinceWhen,
      [this, alive](std::vector<FileEvent> events) {
        auto token = alive.lock();
        if (token && *token) handleEvents(std::move(events));
      },
      std::move(options));
}

void FileIndexer::addSearchScopes(std::vector<std::string> scopes) {
  if (!isMainThread()) return;
  scopes = expandedScopes(scopes, environment_.homeDirectory);
  std::vector<std::string> added;
  {
    std::lock_guard guard(stateMutex_);
    std::vector<std::string> all = searchScopes_;
    for (const auto& scope : scopes) {
      if (std::find(all.begin(), all.end(), scope) == all.end()) {
        all.push_back(scope);
        added.push_back(scope);
      }
    }
    setScopes(std::move(all));
  }
  if (added.empty()) return;
  const uint64_t generation = generation_.load();
  fseventQueue_->async([this, generation, added] { runAdd(generation, added); });
}

void FileIndexer::runAdd(uint64_t generation, std::vector<std::string> added) {
  if (generation_.load() != generation) return;
  const double startTime = monotonicSeconds();
  const double startWallTime = secondsSince1970();
  std::shared_ptr<const ScopeRules> rules = this->rules();
  ScopeScan scan(*rules);
  scan.setCancellation(&generation_, generation);
  scanProgress_ = 0;
  scan.setProgressCounter(&scanProgress_);
  std::vector<ScanRoot> roots;
  for (const auto& scope : added) roots.push_back(rules->rootFor(scope));
  IndexEditor::Walked walked;
  walked.scan = scan.walk(roots);
  walked.replaces = false;  // what the index already holds stays; only what it lacks is added
  scanProgress_ = 0;
  if (walked.scan.cancelled || generation_.load() != generation) return;
  const std::size_t before = fileRef_.count();
  IndexEditor::Change change;
  change.walked.push_back(std::move(walked));
  editor_.apply(change);
  change = {};
  malloc_trim(0);
  const std::size_t addedCount = fileRef_.count() - std::min(before, fileRef_.count());
  const double took = monotonicSeconds() - startTime;
  countChanged();
  runs_.fetch_add(1);
  lastRunTime_ = took;
  post();
  log("#fs adds " + std::to_string(addedCount) + " in " + formatSeconds(took));
  bool watching;
  {
    std::lock_guard guard(stateMutex_);
    watching = watching_;
  }
  if (watching) watch(std::nullopt, startWallTime - 1);  // the old scopes go on; the new ones are armed
}

void FileIndexer::removeSearchScopes(std::vector<std::string> scopes) {
  if (!isMainThread()) return;
  // Records go by plain string prefix of the scope as given ("~" expanded):
  // "/a/b" also drops "/a/bc", but "/a/b/" does not.
  std::vector<std::string> prefixes;
  for (const auto& scope : scopes) {
    prefixes.push_back(scope.starts_with("~") ? environment_.homeDirectory + scope.substr(1) : scope);
  }
  scopes = expandedScopes(scopes, environment_.homeDirectory);
  bool watching;
  {
    std::lock_guard guard(stateMutex_);
    std::vector<std::string> remaining = searchScopes_;
    for (const auto& scope : scopes) remaining.erase(std::remove(remaining.begin(), remaining.end(), scope), remaining.end());
    setScopes(std::move(remaining));
    watching = watching_;
  }
  fseventQueue_->async([this, prefixes, watching] {
    std::size_t removed = fileRef_.removeByPrefixes(prefixes);
    if (watching) watch(std::nullopt, 0);
    if (removed == 0) return;
    countChanged();
    post();  // the summary's count changed
  });
}

void FileIndexer::workspaceWillSleep() {
  std::lock_guard guard(stateMutex_);
  if (!watching_) return;
  fileEvents_.stopWatching(fileEventWatcherIdentifier_, /*keepsHistory=*/true);
  streamID_.reset();
  streamID_ = fileEvents_.currentEventID();
}

void FileIndexer::workspaceDidAwake() {
  std::optional<uint64_t> resumeFrom;
  {
    std::lock_guard guard(stateMutex_);
    if (!watching_ || !streamID_) return;
    resumeFrom = streamID_;
    streamID_.reset();
  }
  watch(resumeFrom, 0);
}

// --- upkeep ---

void FileIndexer::handleEvents(std::vector<FileEvent> events) {
  upkeep_.note(events);
  std::size_t changes = 0;
  for (const auto& event : events) changes += !(event.flags & (kFileEventHistoryDone | kFileEventHistoryIncomplete));
  p_changes.fetch_add(static_cast<int64_t>(changes));
  p_lastChangeTimestamp = secondsSince1970();
  {
    std::lock_guard guard(stateMutex_);
    fseventHasChanged_ = true;
  }
  scheduleUpkeep();
}

void FileIndexer::scheduleUpkeep() {
  const uint64_t generation = generation_.load();
  std::weak_ptr<std::atomic<bool>> alive = alive_;
  auto work = [this, alive, generation] {
    auto token = alive.lock();
    if (token && *token) runUpkeep(generation);
  };
  std::lock_guard lock(throttleMutex_);
  if (!fseventOperationThrottler_) {
    fseventOperationThrottler_ = Throttler::make(DelayPolicy::default_, fseventOperationQueue_, 0.05);
  }
  // A steady trickle of events (a log file written every few milliseconds)
  // would postpone the throttled work for ever; past half a second it runs.
  const double now = monotonicSeconds();
  if (pendingSince_ == 0) pendingSince_ = now;
  if (now - pendingSince_ > 0.5) {
    fseventOperationQueue_->async(work);
  } else {
    fseventOperationThrottler_->throttle(work);
  }
}

void FileIndexer::runUpkeep(uint64_t generation) {
  {
    std::lock_guard lock(throttleMutex_);
    pendingSince_ = 0;
  }
  // One change at a time: the next one is built against the index the
  // previous one left.
  if (commitPending_.load() || !upkeep_.hasPending()) return;
  std::shared_ptr<const ScopeRules> rules = this->rules();
  if (rules->scopes().empty()) {
    upkeep_.clear();
    return;
  }
  std::vector<std::string> lines;
  IndexEditor::Change change = upkeep_.prepare(*rules, fileRef_.copy(), lines);
  if (change.empty()) {
    for (auto& line : lines) EventLog::shared().append(std::move(line));
    return;
  }
  commitPending_ = true;
  std::weak_ptr<std::atomic<bool>> alive = alive_;
  fseventQueue_->async([this, alive, change = std::move(change), lines = std::move(lines), generation]() mutable {
    auto token = alive.lock();
    if (token && *token) commit(std::move(change), std::move(lines), generation);
  });
}

void FileIndexer::commit(IndexEditor::Change change, std::vector<std::string> lines, uint64_t generation) {
  if (generation_.load() == generation) {
    const std::size_t before = fileRef_.count();
    editor_.apply(change);
    change = {};
    for (auto& line : lines) EventLog::shared().append(std::move(line));
    editor_.compactIfWorthIt();
    if (fileRef_.count() != before) {
      countChanged();
      post();
    }
  }
  commitPending_ = false;
  if (upkeep_.hasPending()) scheduleUpkeep();
}

// The summary follows the index between runs.
void FileIndexer::countChanged() {
  const auto count = static_cast<int64_t>(fileRef_.count());
  std::lock_guard guard(stateMutex_);
  if (indexResultDescription_) {
    indexResultDescription_->countOfFiles = count;
    indexResultDescription_->finalChangedTime = secondsSince1970();
  }
  if (indexDescription_ && !indexDescription_->empty()) {
    indexDescription_ = "#fs ends " + std::to_string(count) + " in " + formatSeconds(lastRunSeconds_);
  }
}

// --- state ---

FileIndexer::State FileIndexer::state() const {
  std::lock_guard guard(stateMutex_);
  return {isIndexing_, indexResultDescription_, indexDescription_};
}

std::vector<std::string> FileIndexer::searchScopes() const {
  std::lock_guard guard(stateMutex_);
  return searchScopes_;
}

std::shared_ptr<const Filter> FileIndexer::filter() const {
  std::lock_guard guard(stateMutex_);
  return filter_;
}

std::shared_ptr<const ScopeRules> FileIndexer::rules() const {
  std::lock_guard guard(stateMutex_);
  return rules_;
}

PerformanceSnapshot FileIndexer::performanceSnapshot() const {
  PerformanceSnapshot snapshot;
  FileSegments segments = fileRef_.copy();
  for (const auto& segment : segments) {
    snapshot.countOfFiles += static_cast<int64_t>(segment.liveCount());
    snapshot.bytesOfIndex += static_cast<int64_t>(segment->bytesUsed());
    if (segment.dead) snapshot.bytesOfIndex += static_cast<int64_t>(segment.dead->capacity() * 8);
  }
  if (!segments.empty()) {
    const FolderTree& folders = segments.front()->folders();
    snapshot.countOfFolders = static_cast<int64_t>(folders.size() - folders.detachedCount());
    snapshot.bytesOfIndex += static_cast<int64_t>(folders.bytesUsed());
  }
  snapshot.bytesPerEntry = snapshot.countOfFiles ? double(snapshot.bytesOfIndex) / double(snapshot.countOfFiles) : 0;
  snapshot.isIndexing = state().isIndexing;
  snapshot.scanProgress = scanProgress();
  snapshot.runs = runs_.load();
  snapshot.lastRunTime = lastRunTime_.load();
  snapshot.searches = searches_.load();
  snapshot.lastSearchTime = lastSearchTime_.load();
  snapshot.staleRecordsRemoved = staleRemoved_.load();
  snapshot.fileEventsHandled = p_changes.load();
  snapshot.lastChangeTimestamp = p_lastChangeTimestamp.load();
  FileEventsStatistics watches = fileEvents_.statistics();
  snapshot.watchedFolders = watches.watchedFolders;
  snapshot.sweptFolders = watches.sweptFolders;
  snapshot.watchBudget = watches.watchBudget;
  snapshot.bytesOfWatches = watches.bytesOfWatchTree;
  snapshot.eventQueueOverflows = watches.overflows;
  return snapshot;
}

// --- searches ---

std::vector<File> FileIndexer::checkedHits(const FileSegments& segments, const std::vector<RecordRef>& hits) {
  std::vector<File> kept;
  std::vector<FileReference> stale;
  bool refreshed = false;
  std::shared_ptr<const Filter> filter = this->filter();
  for (const auto& hit : hits) {
    File file = segments[hit.segment]->file(hit.row);
    const std::string& path = file.fileRefURL.currentPath();
    struct stat st;
    if (path.empty() || ::lstat(path.c_str(), &st) != 0) {
      stale.push_back(file.fileRefURL);  // gone: it must stop taking result slots
      continue;
    }
    if (isTrashPath(path, environment_.homeDirectory) || filter->isIgnored(path)) {
      stale.push_back(file.fileRefURL);
      continue;
    }
    if (static_cast<uint64_t>(st.st_ino) != file.fileRefURL.inode ||
        static_cast<uint64_t>(st.st_dev) != file.fileRefURL.device) {
      // Another file now stands at the path (saved through a temporary file
      // and a rename): it is what the user looks for; its record is renewed.
      file.fileRefURL.inode = static_cast<uint64_t>(st.st_ino);
      file.fileRefURL.device = static_cast<uint64_t>(st.st_dev);
      upkeep_.noteItem(path);
      refreshed = true;
    }
    kept.push_back(std::move(file));
  }
  if (!stale.empty()) removeStale(std::move(stale));
  if (refreshed) scheduleUpkeep();
  return kept;
}

void FileIndexer::removeStale(std::vector<FileReference> stale) {
  std::weak_ptr<std::atomic<bool>> alive = alive_;
  fseventQueue_->async([this, alive, stale = std::move(stale)] {
    auto token = alive.lock();
    if (!token || !*token) return;
    std::size_t removed = fileRef_.removeFiles(stale);
    staleRemoved_.fetch_add(static_cast<int64_t>(removed));
    if (removed) countChanged();
  });
}

std::vector<File> FileIndexer::search(std::string_view query, int64_t maxcount,
                                      const std::function<bool(const FileTable&, std::size_t)>& admit) {
  const double start = monotonicSeconds();
  FileSegments segments = fileRef_.copy();
  std::vector<MatchLogicQuery> groups = MatchLogic::parse(query);
  std::vector<RecordRef> hits = runMatchLoop(segments, groups, maxcount, admit);
  std::vector<File> kept = checkedHits(segments, hits);
  searches_.fetch_add(1);
  lastSearchTime_ = monotonicSeconds() - start;
  return kept;
}

std::vector<File> FileIndexer::searchFiles(std::string_view query, int64_t maxcount) {
  return search(query, maxcount, nullptr);
}

std::vector<File> FileIndexer::searchFiles(std::string_view directory, std::string_view query, int64_t maxcount) {
  if (directory.empty()) return {};
  std::string prefix(directory);
  if (prefix.back() != '/') prefix.push_back('/');
  // A record's path is its folder's path + "/" + its name, and a name holds no
  // "/"; so the record lies under the directory exactly when its folder's
  // path + "/" begins with the directory text. Decided once per folder.
  std::unordered_map<const FolderTree*, std::vector<int8_t>> decided;
  auto admit = [&](const FileTable& table, std::size_t row) {
    auto& memo = decided[&table.folders()];
    if (memo.empty()) memo.assign(table.folders().size(), -1);
    uint32_t folder = table.folderOf(row);
    if (folder >= memo.size()) return false;
    if (memo[folder] < 0) {
      std::string folderPath = table.folders().pathOf(folder);
      if (folderPath.empty() || folderPath.back() != '/') folderPath.push_back('/');
      memo[folder] = folderPath.starts_with(prefix) ? 1 : 0;
    }
    return memo[folder] == 1;
  };
  return search(query, maxcount, admit);
}

std::vector<File> FileIndexer::searchFolders(std::string_view query, int64_t maxcount) {
  if (query.empty()) return {};
  return search(query, maxcount, [](const FileTable& table, std::size_t row) { return table.isDirectory(row); });
}

bool FileIndexer::containsFile(std::string_view path) const {
  if (path.empty()) return false;
  std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return false;
  std::string_view name = path.substr(slash + 1);
  std::string_view parent = slash == 0 ? std::string_view("/") : path.substr(0, slash);
  if (name.empty()) return false;
  // This answers on the bus thread, so it must cost the same for any name:
  // the folder's id, then one integer compare a record.
  FileSegments segments = fileRef_.copy();
  for (const auto& segment : segments) {
    const FileTable& table = *segment;
    const FolderTree& folders = table.folders();
    uint32_t folder = folders.find(parent);
    if (folder == FolderTree::kNotFound) {
      // A scope's own record sits outside the folders its walk made.
      if (folders.find(path) == FolderTree::kNotFound) continue;
      for (std::size_t row = 0; row < table.size(); ++row) {
        if (segment.isLive(row) && table.nameEquals(row, name) && table.path(row) == path) return true;
      }
      continue;
    }
    for (std::size_t row = 0; row < table.size(); ++row) {
      if (table.folderOf(row) == folder && segment.isLive(row) && table.nameEquals(row, name)) return true;
    }
  }
  return false;
}

std::vector<File> FileIndexer::filesNamed(const std::vector<std::string>& suffixes, bool folders, bool files) {
  FileSegments segments = fileRef_.copy();
  std::vector<RecordRef> hits;
  for (uint32_t s = 0; s < segments.size(); ++s) {
    const FileTable& table = *segments[s];
    for (uint32_t row = 0; row < table.size(); ++row) {
      if (!segments[s].isLive(row)) continue;
      if (table.isDirectory(row) ? !folders : !files) continue;
      std::string name = table.name(row);
      for (const auto& suffix : suffixes) {
        if (hasSuffixIgnoringCase(name, suffix)) {
          hits.push_back({s, row});
          break;
        }
      }
    }
  }
  return checkedHits(segments, hits);
}

std::vector<File> FileIndexer::codeWorkspaces() { return filesNamed({".code-workspace"}, false, true); }

std::vector<File> FileIndexer::ideProjects() {
  std::vector<File> projects = filesNamed({".xcodeproj", ".xcworkspace"}, true, false);
  std::vector<File> others = filesNamed({".sln", ".ipr", ".kdev4", ".cbp", ".qbs"}, false, true);
  projects.insert(projects.end(), std::make_move_iterator(others.begin()), std::make_move_iterator(others.end()));
  return projects;
}

std::optional<std::vector<FileBridge>> directoryFiles(const std::string& directory, bool skipHiddenFiles,
                                                      std::size_t maxEntries, std::size_t maxNamesRead) {
  std::string path = normalizedScope(expandTilde(directory));
  if (path.empty()) return std::nullopt;
  DIR* dir = ::opendir(path.c_str());
  if (!dir) return std::nullopt;
  std::vector<std::string> names;
  while (names.size() < maxNamesRead) {
    dirent* entry = ::readdir(dir);
    if (!entry) break;
    std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (skipHiddenFiles && name.front() == '.') continue;
    names.emplace_back(name);
  }
  ::closedir(dir);
  const std::size_t kept = std::min(maxEntries, names.size());
  std::partial_sort(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(kept), names.end());
  names.resize(kept);
  std::vector<FileBridge> entries;
  entries.reserve(kept);
  for (auto& name : names) {
    std::string full = path == "/" ? "/" + name : path + "/" + name;
    struct stat st;
    bool isFolder = ::stat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    entries.push_back({std::move(name), std::move(full), isFolder});
  }
  return entries;
}

}  // namespace quorvi

#include "fileindex/file_indexer.h"

#include <dirent.h>
#include <malloc.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <unordered_map>

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

FileIndexer& FileIndexer::shared() {
  static auto* indexer = new FileIndexer(FilterEnvironment::standard(), /*logsToStandardOutput=*/true);
  return *indexer;
}

FileIndexer::FileIndexer(FilterEnvironment environment, bool logsToStandardOutput)
    : environment_(std::move(environment)),
      logsToStandardOutput_(logsToStandardOutput),
      fseventQueue_(DispatchQueue::makeSerial("com.quorvi.fsevent", QualityOfService::background)),
      fseventOperationQueue_(DispatchQueue::makeSerial("com.quorvi.fsevent.operation", QualityOfService::background)),
      fileEventWatcherIdentifier_(randomUUID()) {
  filter_ = std::make_shared<Filter>(Filter::build({}, environment_));
}

FileIndexer::~FileIndexer() {
  generation_.fetch_add(1);
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

void FileIndexSnapshot::forEach(const std::function<bool(const FileTable&, std::size_t)>& visit) const {
  for (const auto& table : segments_) {
    for (std::size_t row = 0; row < table->size(); ++row) {
      if (!visit(*table, row)) return;
    }
  }
}

std::size_t FileIndexSnapshot::count() const {
  std::size_t total = 0;
  for (const auto& table : segments_) total += table->size();
  return total;
}

// --- scope changes ---

void FileIndexer::startIndexing(std::vector<std::string> scopes) {
  if (!isMainThread()) return;
  scopes = expandedScopes(scopes, environment_.homeDirectory);
  const double startTime = monotonicSeconds();
  const uint64_t generation = generation_.fetch_add(1) + 1;
  auto filter = std::make_shared<const Filter>(Filter::build(scopes, environment_));
  if (scopes.empty()) {
    fileRef_.replace({});
    {
      std::lock_guard guard(stateMutex_);
      searchScopes_.clear();
      filter_ = filter;
      isIndexing_ = false;
      indexResultDescription_ = FileIndexResultDescription{true, 0, 0, secondsSince1970()};
      indexDescription_.reset();
      fseventHasChanged_ = false;
      streamID_.reset();
    }
    post();
    return;
  }
  {
    std::lock_guard guard(stateMutex_);
    searchScopes_ = scopes;
    filter_ = filter;
    isIndexing_ = true;
    fseventHasChanged_ = false;
    indexDescription_ = "";
    streamID_.reset();
    indexResultDescription_.reset();
  }
  post();
  fseventQueue_->async([this, generation, scopes, startTime] { runScan(generation, scopes, startTime); });
}

void FileIndexer::runScan(uint64_t generation, std::vector<std::string> scopes, double startTime) {
  if (generation_.load() != generation) return;  // superseded before it began
  std::shared_ptr<const Filter> filter = this->filter();
  ScopeScan scan(*filter, environment_.homeDirectory);
  scan.setCancellation(&generation_, generation);
  scanProgress_ = 0;
  scan.setProgressCounter(&scanProgress_);
  ScanResult result = scan.run(scopes, {}, nullptr);
  scanProgress_ = 0;
  if (result.cancelled || generation_.load() != generation) return;
  fileRef_.replace({result.table});
  result = {};
  malloc_trim(0);  // the walk's buffers are gone; give their pages back
  const int64_t count = static_cast<int64_t>(fileRef_.count());
  const double took = monotonicSeconds() - startTime;
  std::string description = "#fs ends " + std::to_string(count) + " in " + formatSeconds(took);
  {
    std::lock_guard guard(stateMutex_);
    if (generation_.load() != generation) return;
    consumeTime_ = took;
    isIndexing_ = false;
    indexResultDescription_ = FileIndexResultDescription{true, count, took, secondsSince1970()};
    indexDescription_ = description;
  }
  runs_.fetch_add(1);
  lastRunTime_ = took;
  post();
  log(description);
}

void FileIndexer::addSearchScopes(std::vector<std::string> scopes) {
  if (!isMainThread()) return;
  scopes = expandedScopes(scopes, environment_.homeDirectory);
  std::vector<std::string> added, earlier;
  {
    std::lock_guard guard(stateMutex_);
    earlier = searchScopes_;
    for (const auto& scope : scopes) {
      if (std::find(searchScopes_.begin(), searchScopes_.end(), scope) == searchScopes_.end()) {
        searchScopes_.push_back(scope);
        added.push_back(scope);
      }
    }
    filter_ = std::make_shared<const Filter>(Filter::build(searchScopes_, environment_));
  }
  if (added.empty()) return;
  const uint64_t generation = generation_.load();
  fseventQueue_->async([this, generation, added, earlier] { runAdd(generation, added, earlier); });
}

void FileIndexer::runAdd(uint64_t generation, std::vector<std::string> added, std::vector<std::string> earlier) {
  if (generation_.load() != generation) return;
  const double startTime = monotonicSeconds();
  std::shared_ptr<const Filter> filter = this->filter();
  FileSegments segments = fileRef_.copy();
  std::shared_ptr<const FolderTree> base = segments.empty() ? nullptr : segments.back()->sharedFolders();
  ScopeScan scan(*filter, environment_.homeDirectory);
  scan.setCancellation(&generation_, generation);
  scanProgress_ = 0;
  scan.setProgressCounter(&scanProgress_);
  ScanResult result = scan.run(added, earlier, base);
  scanProgress_ = 0;
  if (result.cancelled || generation_.load() != generation) return;
  const std::size_t addedCount = result.table->size();
  if (addedCount) fileRef_.append(result.table);
  result = {};
  malloc_trim(0);
  const int64_t count = static_cast<int64_t>(fileRef_.count());
  const double took = monotonicSeconds() - startTime;
  {
    std::lock_guard guard(stateMutex_);
    if (indexResultDescription_) {
      indexResultDescription_->countOfFiles = count;
      indexResultDescription_->finalChangedTime = secondsSince1970();
    }
  }
  runs_.fetch_add(1);
  lastRunTime_ = took;
  post();
  log("#fs adds " + std::to_string(addedCount) + " in " + formatSeconds(took));
}

void FileIndexer::removeSearchScopes(std::vector<std::string> scopes) {
  if (!isMainThread()) return;
  scopes = expandedScopes(scopes, environment_.homeDirectory);
  {
    std::lock_guard guard(stateMutex_);
    for (const auto& scope : scopes) {
      searchScopes_.erase(std::remove(searchScopes_.begin(), searchScopes_.end(), scope), searchScopes_.end());
    }
    filter_ = std::make_shared<const Filter>(Filter::build(searchScopes_, environment_));
  }
  fseventQueue_->async([this, scopes] {
    std::size_t removed = fileRef_.removeByPrefixes(scopes);
    if (removed == 0) return;
    const int64_t count = static_cast<int64_t>(fileRef_.count());
    {
      std::lock_guard guard(stateMutex_);
      if (indexResultDescription_) {
        indexResultDescription_->countOfFiles = count;
        indexResultDescription_->finalChangedTime = secondsSince1970();
      }
    }
    post();  // the summary's count changed
  });
}

void FileIndexer::workspaceWillSleep() {
  std::lock_guard guard(stateMutex_);
  // No file-event journal exists yet; the resume point is "now".
  streamID_ = static_cast<uint64_t>(secondsSince1970() * 1000);
}

void FileIndexer::workspaceDidAwake() {
  std::lock_guard guard(stateMutex_);
  streamID_.reset();
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

PerformanceSnapshot FileIndexer::performanceSnapshot() const {
  PerformanceSnapshot snapshot;
  FileSegments segments = fileRef_.copy();
  const FolderTree* lastTree = nullptr;
  for (const auto& table : segments) {
    snapshot.countOfFiles += static_cast<int64_t>(table->size());
    snapshot.bytesOfIndex += static_cast<int64_t>(table->bytesUsed());
    if (&table->folders() == lastTree) snapshot.bytesOfIndex -= static_cast<int64_t>(lastTree->bytesUsed());
    lastTree = &table->folders();
  }
  if (lastTree) snapshot.countOfFolders = static_cast<int64_t>(lastTree->size());
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
  return snapshot;
}

// --- searches ---

std::vector<File> FileIndexer::checkedHits(const FileSegments& segments, const std::vector<RecordRef>& hits) {
  std::vector<File> kept;
  std::vector<FileReference> stale;
  std::shared_ptr<const Filter> filter = this->filter();
  for (const auto& hit : hits) {
    File file = segments[hit.segment]->file(hit.row);
    const std::string& path = file.fileRefURL.currentPath();
    if (!file.fileRefURL.isReachable()) continue;
    if (isTrashPath(path, environment_.homeDirectory) || filter->isIgnored(path)) {
      stale.push_back(file.fileRefURL);
      continue;
    }
    kept.push_back(std::move(file));
  }
  if (!stale.empty()) removeStale(std::move(stale));
  return kept;
}

void FileIndexer::removeStale(std::vector<FileReference> stale) {
  fseventQueue_->async([this, stale = std::move(stale)] {
    std::size_t removed = fileRef_.removeFiles(stale);
    staleRemoved_.fetch_add(static_cast<int64_t>(removed));
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
  std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  if (name.empty()) return false;
  // Every record named `name` holds, in its arena region, either the name in
  // ASCII lower case (at the start of its match text) or the raw name (after
  // it). So only the records where one of the two occurs need comparing.
  std::string lower(name);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  FileSegments segments = fileRef_.copy();
  for (const auto& table : segments) {
    std::string_view arena = table->arena();
    std::vector<std::string_view> needles{lower};
    if (lower != name) needles.push_back(name);
    for (const std::string_view needle : needles) {
      const char* position = arena.data();
      const char* const end = arena.data() + arena.size();
      while (const char* hit = findBytes(position, end, needle)) {
        std::size_t row = table->recordAt(static_cast<std::size_t>(hit - arena.data()));
        if (table->nameEquals(row, name) && table->path(row) == path) return true;
        position = arena.data() + table->textOffset(row + 1);
      }
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

std::optional<std::vector<FileBridge>> directoryFiles(const std::string& directory, bool skipHiddenFiles) {
  std::string path = normalizedScope(expandTilde(directory));
  if (path.empty()) return std::nullopt;
  DIR* dir = ::opendir(path.c_str());
  if (!dir) return std::nullopt;
  std::vector<FileBridge> entries;
  while (dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (skipHiddenFiles && name.front() == '.') continue;
    std::string full = path == "/" ? "/" + name : path + "/" + name;
    struct stat st;
    bool isFolder = ::stat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    entries.push_back({name, full, isFolder});
  }
  ::closedir(dir);
  std::sort(entries.begin(), entries.end(),
            [](const FileBridge& a, const FileBridge& b) { return a.nameOfDisplay < b.nameOfDisplay; });
  return entries;
}

}  // namespace quorvi

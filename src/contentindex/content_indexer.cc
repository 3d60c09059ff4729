#include "contentindex/content_indexer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <unordered_map>
#include <unordered_set>

#include "common/notification_center.h"
#include "fileindex/file_indexer.h"
#include "fileindex/scope_scan.h"
#include "platform/paths.h"

namespace quorvi {

namespace {

std::atomic<ContentIndexer*> gShared{nullptr};

double now() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// The kind of a document by its name, remembered per extension (most names
// share a few hundred), or per whole name when it has none ("README").
DocumentKind kindOfName(std::string_view name) {
  static std::mutex mutex;
  static auto* cache = new std::unordered_map<std::string, DocumentKind>;
  std::size_t dot = name.rfind('.');
  std::string key;
  if (dot != std::string_view::npos && dot > 0 && name.size() - dot <= 12) {
    key.assign(name.substr(dot));
    for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  } else {
    key.assign(name);
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    auto found = cache->find(key);
    if (found != cache->end()) return found->second;
  }
  DocumentKind kind = documentKindOfName(dot != std::string_view::npos && dot > 0 ? "x" + key : key);
  std::lock_guard<std::mutex> lock(mutex);
  if (cache->size() > 100000) cache->clear();
  cache->emplace(key, kind);
  return kind;
}

std::string nameOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool under(const std::string& path, const std::string& folder) {
  if (folder == "/") return path.starts_with("/");
  return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

// The stamp of a regular file (links are not followed: the index records the
// link itself, and its target is indexed where it lives).
std::optional<DocumentStamp> stampOf(const std::string& path) {
  struct stat info;
  if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return DocumentStamp{static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec,
                       static_cast<int64_t>(info.st_size)};
}

}  // namespace

Json ContentIndexProgress::toJson() const {
  Json json = Json::object();
  json["started"] = started;
  json["isIndexing"] = isIndexing;
  json["documents"] = documents;
  json["documentsWithText"] = documentsWithText;
  json["pending"] = pending;
  json["extracted"] = extracted;
  json["failed"] = failed;
  json["textBytes"] = textBytes;
  json["sourceBytes"] = sourceBytes;
  json["extractionSeconds"] = extractionSeconds;
  json["megabytesPerSecond"] = extractionSeconds > 0 ? static_cast<double>(sourceBytes) / 1e6 / extractionSeconds : 0.0;
  json["passes"] = passes;
  json["lastPassTime"] = lastPassTime;
  json["fileEventsHandled"] = fileEventsHandled;
  return json;
}

std::string ContentIndexer::stateDirectory() { return xdgStateHome() + "/quorvifind"; }

ContentIndexer& ContentIndexer::shared() {
  static ContentIndexer* indexer = [] {
    auto* made = new ContentIndexer(FileIndexer::shared(), Options{});
    gShared.store(made, std::memory_order_release);
    return made;
  }();
  return *indexer;
}

ContentIndexer* ContentIndexer::sharedIfMade() { return gShared.load(std::memory_order_acquire); }

void ContentIndexer::followFileIndex() {
  static std::once_flag once;
  std::call_once(once, [] {
    NotificationCenter::shared().addObserver(kFileIndexStateDidChange, [](const std::string&) {
      // Making it may open the database: not on the posting thread.
      if (!sharedIfMade()) DispatchQueue::background().async([] { shared(); });
    });
  });
}

ContentIndexer::ContentIndexer(FileIndexer& files, Options options)
    : files_(files),
      options_(std::move(options)),
      queue_(DispatchQueue::makeSerial("com.quorvi.contentindex", QualityOfService::background)) {
  databasePath_ = options_.databasePath;
  if (databasePath_.empty()) {
    std::string folder = stateDirectory();
    makeParentDirectories(folder + "/x");
    ::chmod(folder.c_str(), 0700);
    databasePath_ = folder + "/content-index.sqlite3";
  }
  homeDirectory_ = homeDirectory();
  hiddenAllowedScopes_ = cloudDriveScopes(homeDirectory_);
  observerToken_ = NotificationCenter::shared().addObserver(kFileIndexStateDidChange, [this](const std::string&) {
    queue_->async([this] { onFileIndexChanged(); });
  });
  // The index may be ready already (made before this object).
  queue_->async([this] { onFileIndexChanged(); });
}

ContentIndexer::~ContentIndexer() {
  stopping_ = true;
  NotificationCenter::shared().removeObserver(observerToken_);
  FileEvents& events = options_.fileEvents ? *options_.fileEvents : FileEvents::shared();
  events.stopWatching(options_.watcherIdentifier, false);
  waitUntilIdle();
}

ContentStore* ContentIndexer::store() {
  if (!store_) {
    std::string failure;
    store_ = ContentStore::open(databasePath_, ContentStore::Mode::write, &failure);
    if (store_) {
      documents_ = store_->documentCount();
      documentsWithText_ = store_->documentsWithTextCount();
    }
  }
  return store_.get();
}

void ContentIndexer::synchronize() {
  if (passRequested_.exchange(true)) return;
  ++passGeneration_;
  queue_->async([this] { runPass(); });
}

void ContentIndexer::apply(std::vector<FileEvent> events) {
  queue_->async([this, events = std::move(events)] { handleEvents(events); });
}

void ContentIndexer::waitUntilIdle() {
  // Work queued by work (a pass asked for by events) is waited for too.
  for (int round = 0; round < 3; ++round) queue_->sync([] {});
}

void ContentIndexer::onFileIndexChanged() {
  if (stopping_) return;
  FileIndexer::State state = files_.state();
  if (state.isIndexing || !state.indexResultDescription) return;
  std::vector<std::string> scopes = files_.searchScopes();
  if (scopes != watchedScopes_) {
    double changedSince = state.indexResultDescription->finalChangedTime - state.indexResultDescription->consumeTime - 1;
    watch(scopes, changedSince);
  }
  synchronize();
}

void ContentIndexer::watch(const std::vector<std::string>& scopes, double changedSince) {
  FileEvents& events = options_.fileEvents ? *options_.fileEvents : FileEvents::shared();
  watchedScopes_ = scopes;
  if (scopes.empty()) {
    events.stopWatching(options_.watcherIdentifier, false);
    return;
  }
  std::shared_ptr<const Filter> filter = files_.filter();
  FileWatchOptions watchOptions;
  auto hiddenAllowed = hiddenAllowedScopes_;
  watchOptions.watchesFolder = [filter, scopes, hiddenAllowed](std::string_view folder) {
    if (filter && filter->ignoresEverythingUnder(folder)) return false;
    std::size_t slash = folder.rfind('/');
    bool hidden = slash != std::string_view::npos && slash + 1 < folder.size() && folder[slash + 1] == '.';
    if (!hidden) return true;
    for (const auto& scope : hiddenAllowed) {
      if (folder.starts_with(scope)) return true;
    }
    return false;
  };
  watchOptions.reportsFoldersChangedSince = std::max(0.0, changedSince);
  events.startWatching(scopes, options_.watcherIdentifier, queue_, std::nullopt,
                       [this](std::vector<FileEvent> batch) { handleEvents(batch); }, std::move(watchOptions));
}

bool ContentIndexer::admits(const std::string& path) const {
  const std::string* scope = nullptr;
  for (const auto& candidate : watchedScopes_) {
    if (under(path, candidate)) {
      scope = &candidate;
      break;
    }
  }
  if (!scope) return false;
  auto filter = files_.filter();
  if (filter && filter->isIgnored(path)) return false;
  bool hiddenAllowed = std::find(hiddenAllowedScopes_.begin(), hiddenAllowedScopes_.end(), *scope) !=
                       hiddenAllowedScopes_.end();
  if (!hiddenAllowed && path.find("/.", scope->size()) != std::string::npos) return false;
  return true;
}

std::optional<ContentIndexer::Job> ContentIndexer::jobFor(const std::string& path,
                                                          const std::optional<StoredDocument>& stored) {
  DocumentKind kind = kindOfName(nameOf(path));
  if (kind == DocumentKind::none) return std::nullopt;
  auto stamp = stampOf(path);
  if (!stamp) return std::nullopt;
  if (stored && stored->stamp == *stamp) return std::nullopt;
  return Job{path, kind, *stamp};
}

void ContentIndexer::runPass() {
  passRequested_ = false;
  uint64_t pass = passGeneration_.load();
  if (stopping_ || !store()) return;
  FileIndexer::State state = files_.state();
  if (state.isIndexing || !state.indexResultDescription) return;
  busy_ = true;
  double started = now();

  // The documents the file index holds now, newest first.
  std::vector<std::pair<std::string, DocumentKind>> candidates;
  files_.snapshot().forEach([&](const FileTable& table, std::size_t row) {
    if (table.isDirectory(row)) return true;
    DocumentKind kind = kindOfName(table.name(row));
    if (kind != DocumentKind::none) candidates.emplace_back(table.path(row), kind);
    return !stopping_.load(std::memory_order_relaxed);
  });

  auto stored = store_->documents();
  std::vector<Job> jobs;
  std::unordered_set<std::string> present;
  present.reserve(candidates.size());
  for (auto& [path, kind] : candidates) {
    present.insert(path);
    auto stamp = stampOf(path);
    if (!stamp) continue;
    auto found = stored.find(path);
    if (found != stored.end() && found->second.stamp == *stamp) continue;
    jobs.push_back({path, kind, *stamp});
  }
  std::vector<std::string> gone;
  for (const auto& [path, document] : stored) {
    if (!present.count(path)) gone.push_back(path);
  }
  for (std::size_t at = 0; at < gone.size(); at += 1000) {
    std::vector<std::string> chunk(gone.begin() + static_cast<std::ptrdiff_t>(at),
                                   gone.begin() + static_cast<std::ptrdiff_t>(std::min(gone.size(), at + 1000)));
    store_->remove(chunk);
  }
  bool finished = extract(std::move(jobs), pass);
  documents_ = store_->documentCount();
  documentsWithText_ = store_->documentsWithTextCount();
  if (finished) {
    ++passes_;
    lastPassTime_ = now() - started;
  }
  busy_ = false;
}

bool ContentIndexer::extract(std::vector<Job> jobs, uint64_t pass) {
  pending_ = static_cast<int64_t>(jobs.size());
  std::size_t batchSize = std::max<std::size_t>(1, options_.batchDocuments);
  for (std::size_t at = 0; at < jobs.size(); at += batchSize) {
    if (stopping_ || (pass != 0 && passGeneration_.load() != pass)) {
      pending_ = 0;
      return false;
    }
    std::size_t end = std::min(jobs.size(), at + batchSize);
    std::vector<ContentStore::Write> writes(end - at);
    double started = now();
    concurrentPerform(
        end - at,
        [&](std::size_t i) {
          const Job& job = jobs[at + i];
          writes[i].path = job.path;
          writes[i].stamp = job.stamp;
          writes[i].text = extractText(job.path, job.kind, options_.limits);
        },
        QualityOfService::background);
    double spent = now() - started;
    int64_t textBytes = 0, sourceBytes = 0, failed = 0;
    for (std::size_t i = 0; i < writes.size(); ++i) {
      sourceBytes += jobs[at + i].stamp.size;
      if (writes[i].text) {
        textBytes += static_cast<int64_t>(writes[i].text->size());
        if (writes[i].text->empty()) writes[i].text.reset();
      } else {
        ++failed;
      }
    }
    store_->write(writes);
    extracted_ += static_cast<int64_t>(writes.size());
    failed_ += failed;
    textBytes_ += textBytes;
    sourceBytes_ += sourceBytes;
    extractionSeconds_ = extractionSeconds_.load() + spent;
    pending_ = static_cast<int64_t>(jobs.size() - end);
  }
  pending_ = 0;
  return true;
}

void ContentIndexer::handleEvents(const std::vector<FileEvent>& events) {
  if (stopping_ || !store()) return;
  busy_ = true;
  std::vector<Job> jobs;
  std::unordered_set<std::string> queued;
  bool needsPass = false;
  for (const auto& event : events) {
    ++eventsHandled_;
    if (event.has(kFileEventHistoryIncomplete)) {
      needsPass = true;
      continue;
    }
    if (event.has(kFileEventHistoryDone) || event.path.empty()) continue;
    if (event.has(kFileEventRenamed) && !event.movedFrom.empty()) store_->move(event.movedFrom, event.path);
    if (event.has(kFileEventRemoved)) {
      store_->remove({event.path});
      store_->removeUnder(event.path);
      continue;
    }
    if (event.has(kFileEventIsDirectory)) {
      if (event.has(kFileEventCreated) || event.has(kFileEventMustScanSubDirs) || event.has(kFileEventFolderChanged) ||
          event.has(kFileEventRenamed)) {
        reconcileFolder(event.path);
      }
      continue;
    }
    if (!admits(event.path)) {
      // A file renamed or moved to where it is not indexed loses its text.
      if (store_->document(event.path)) store_->remove({event.path});
      continue;
    }
    if (queued.count(event.path)) continue;
    if (auto job = jobFor(event.path, store_->document(event.path))) {
      queued.insert(event.path);
      jobs.push_back(std::move(*job));
    } else if (!stampOf(event.path) && store_->document(event.path)) {
      store_->remove({event.path});
    }
  }
  extract(std::move(jobs), 0);
  documents_ = store_->documentCount();
  documentsWithText_ = store_->documentsWithTextCount();
  busy_ = false;
  if (needsPass) synchronize();
}

void ContentIndexer::reconcileFolder(const std::string& folder) {
  if (!admits(folder + "/x")) {
    store_->removeUnder(folder);
    return;
  }
  auto stored = store_->documentsUnder(folder);
  std::vector<Job> jobs;
  std::unordered_set<std::string> present;
  auto filter = files_.filter();
  // Walk without following links, skipping what the index skips.
  std::vector<std::string> folders = {folder};
  std::size_t visited = 0;
  while (!folders.empty() && visited < 2000000 && !stopping_) {
    std::string current = std::move(folders.back());
    folders.pop_back();
    DIR* dir = ::opendir(current.c_str());
    if (!dir) continue;
    while (dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      ++visited;
      std::string path = current + "/" + name;
      if (!admits(path)) continue;
      unsigned char type = entry->d_type;
      if (type == DT_UNKNOWN) {
        struct stat info;
        if (::lstat(path.c_str(), &info) != 0) continue;
        type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_LNK;
      }
      if (type == DT_DIR) {
        if (!filter || !filter->ignoresEverythingUnder(path)) folders.push_back(path);
      } else if (type == DT_REG) {
        auto found = stored.find(path);
        std::optional<StoredDocument> was;
        if (found != stored.end()) was = found->second;
        if (kindOfName(name) != DocumentKind::none) present.insert(path);
        if (auto job = jobFor(path, was)) jobs.push_back(std::move(*job));
      }
    }
    ::closedir(dir);
  }
  std::vector<std::string> gone;
  for (const auto& [path, document] : stored) {
    if (!present.count(path)) gone.push_back(path);
  }
  if (!gone.empty()) store_->remove(gone);
  extract(std::move(jobs), 0);
}

std::unique_ptr<ContentStore> ContentIndexer::takeReader() {
  {
    std::lock_guard<std::mutex> lock(readersMutex_);
    if (!readers_.empty()) {
      auto reader = std::move(readers_.back());
      readers_.pop_back();
      return reader;
    }
  }
  return ContentStore::open(databasePath_, ContentStore::Mode::read);
}

void ContentIndexer::returnReader(std::unique_ptr<ContentStore> reader) {
  std::lock_guard<std::mutex> lock(readersMutex_);
  if (readers_.size() < 8) readers_.push_back(std::move(reader));
}

bool ContentIndexer::search(const std::string& expression, std::size_t limit,
                            const std::function<bool(const ContentHit&)>& admit) {
  auto reader = takeReader();
  if (!reader) return false;
  bool ok = reader->search(expression, limit, admit);
  returnReader(std::move(reader));
  return ok;
}

ContentIndexProgress ContentIndexer::progress() const {
  ContentIndexProgress progress;
  progress.started = true;
  progress.isIndexing = busy_.load();
  progress.documents = documents_.load();
  progress.documentsWithText = documentsWithText_.load();
  progress.pending = pending_.load();
  progress.extracted = extracted_.load();
  progress.failed = failed_.load();
  progress.textBytes = textBytes_.load();
  progress.sourceBytes = sourceBytes_.load();
  progress.extractionSeconds = extractionSeconds_.load();
  progress.passes = passes_.load();
  progress.lastPassTime = lastPassTime_.load();
  progress.fileEventsHandled = eventsHandled_.load();
  return progress;
}

}  // namespace quorvi

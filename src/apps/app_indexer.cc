#include "apps/app_indexer.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <shared_mutex>

#include "apps/app_scan.h"
#include "apps/bundle_reader.h"
#include "common/benchmark.h"
#include "common/notification_center.h"

namespace quorvi {

namespace {

constexpr std::size_t kLogCapacity = 500;
constexpr int kDesktopFolderDepth = 8;
// Folder times may lag the clock by a tick; a second more is reported.
constexpr double kFolderTimeGranularity = 1.0;

double secondsSince1970() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

std::string milliseconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3lf", seconds * 1000.0);
  return text;
}

bool exists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

bool isDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// path is folder or lies below it.
bool isAtOrBelow(std::string_view path, std::string_view folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

int depthBelow(std::string_view path, std::string_view folder) {
  return static_cast<int>(std::count(path.begin() + folder.size(), path.end(), '/'));
}

std::vector<std::string> expandedScopes(const std::vector<std::string>& scopes, const std::string& home) {
  std::vector<std::string> expanded;
  for (auto scope : scopes) {
    if (scope == "~" || scope.starts_with("~/")) scope = home + scope.substr(1);
    while (scope.size() > 1 && scope.back() == '/') scope.pop_back();
    if (scope.starts_with("/") && std::find(expanded.begin(), expanded.end(), scope) == expanded.end()) {
      expanded.push_back(scope);
    }
  }
  return expanded;
}

bool isDesktopEntryApp(const AppEntry& entry) { return entry.path.ends_with(".desktop"); }

// Replaces the entry with the same path, or appends.
void upsert(std::vector<AppEntry>& entries, AppEntry entry) {
  auto found = std::find_if(entries.begin(), entries.end(), [&](const AppEntry& e) { return e.path == entry.path; });
  if (found != entries.end()) {
    *found = std::move(entry);
  } else {
    entries.push_back(std::move(entry));
  }
}

}  // namespace

// Work scheduled on queues holds this, not the indexer: a destroyed indexer
// leaves it empty, and its destructor waits for work that is running.
struct AppIndexer::Liveness {
  std::shared_mutex mutex;
  AppIndexer* indexer = nullptr;

  static std::function<void()> guarded(std::shared_ptr<Liveness> liveness, void (AppIndexer::*method)()) {
    return [liveness = std::move(liveness), method] {
      std::shared_lock guard(liveness->mutex);
      if (liveness->indexer) (liveness->indexer->*method)();
    };
  }
};

AppIndexer& AppIndexer::shared() {
  static auto* indexer = [] {
    Options options;
    options.environment = AppEnvironment::standard();
    options.catalog = &DesktopCatalog::shared();
    options.logsToStandardOutput = true;
    return new AppIndexer(std::move(options));
  }();
  return *indexer;
}

AppIndexer::AppIndexer(Options options)
    : options_(std::move(options)),
      lastUsedReader_(options_.environment.gnomeApplicationStateFile, options_.environment.kdeActivityDatabase,
                      options_.environment.recentlyUsedFile),
      liveness_(std::make_shared<Liveness>()),
      fseventQueue_(DispatchQueue::makeSerial("com.quorvi.fsappevent", QualityOfService::background)),
      fseventOperationQueue_(DispatchQueue::makeSerial("com.quorvi.fsappevent.operation", QualityOfService::background)) {
  if (options_.catalog) {
    catalog_ = options_.catalog;
  } else {
    ownCatalog_ = std::make_unique<DesktopCatalog>(options_.environment.applicationDirectories());
    catalog_ = ownCatalog_.get();
  }
  static std::atomic<int> instances{0};
  fileEventWatcherIdentifier_ = "com.quorvi.appindex." + std::to_string(instances.fetch_add(1));
  liveness_->indexer = this;
}

AppIndexer::~AppIndexer() {
  if (watching_) fileEvents().stopWatching(fileEventWatcherIdentifier_, /*keepsHistory=*/false);
  {
    std::unique_lock guard(liveness_->mutex);  // waits for work under way
    liveness_->indexer = nullptr;
  }
  fseventQueue_->sync([] {});
  fseventOperationQueue_->sync([] {});
}

// --- state ---

FileEvents& AppIndexer::fileEvents() {
  // The shared service is started on first use, on the operation queue
  // (never on the bus thread that may make this index).
  return options_.fileEvents ? *options_.fileEvents : FileEvents::shared();
}

std::vector<std::string> AppIndexer::searchScopes() const {
  std::lock_guard guard(stateMutex_);
  return searchScopes_;
}

std::vector<std::string> AppIndexer::watchedPaths() const {
  std::lock_guard guard(stateMutex_);
  return watchedPaths_;
}

std::vector<std::string> AppIndexer::logs() const {
  std::lock_guard guard(stateMutex_);
  return logs_;
}

void AppIndexer::setOnLog(std::function<void(const std::string&)> observer) {
  std::lock_guard guard(stateMutex_);
  onLog_ = std::move(observer);
}

void AppIndexer::log(std::string line) {
  std::function<void(const std::string&)> observer;
  {
    std::lock_guard guard(stateMutex_);
    if (logs_.size() == kLogCapacity) logs_.erase(logs_.begin());
    logs_.push_back(line);
    observer = onLog_;
  }
  if (options_.logsToStandardOutput) {
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
  }
  if (observer) observer(line);
}

const std::vector<VenturaSystemExtensionLocalizedName>& AppIndexer::venturaSystemExtensionLocalizedNames() {
  std::call_once(extensionNamesOnce_, [this] {
    venturaSystemExtensionLocalizedNames_ = readExtensionLocalizedNames(options_.environment.resourceDirectory);
  });
  return venturaSystemExtensionLocalizedNames_;
}

void AppIndexer::publish(std::vector<AppEntry> entries, bool notify) {
  appRef_.replace(std::move(entries));
  if (!notify) return;
  NotificationCenter::shared().post(kAppIndexDidUpdate);
  NotificationCenter::shared().post(kAppIndexerStateDidChange);
}

// --- scans ---

void AppIndexer::startIndexing(std::vector<std::string> scopes, FinishHandler indexDidFinishHandler) {
  std::lock_guard guard(stateMutex_);
  searchScopes_ = expandedScopes(scopes, options_.environment.homeDirectory);
  if (indexDidFinishHandler) pendingHandlers_.push_back(std::move(indexDidFinishHandler));
  if (scanQueued_) return;
  scanQueued_ = true;
  isIndexing_ = true;
  fseventOperationQueue_->async(Liveness::guarded(liveness_, &AppIndexer::runScan));
}

void AppIndexer::runScan() {
  std::vector<FinishHandler> handlers;
  std::vector<std::string> scopes;
  {
    std::lock_guard guard(stateMutex_);
    scanQueued_ = false;
    handlers = std::move(pendingHandlers_);
    pendingHandlers_.clear();
    scopes = searchScopes_;
  }
  Benchmark benchmark;
  const double scanStarted = secondsSince1970();
  const AppEnvironment& environment = options_.environment;
  auto catalog = catalog_->refresh();
  std::vector<AppEntry> entries = desktopEntryApps(*catalog, environment, lastUsedReader_.records());
  BundleScanContext context{environment, venturaSystemExtensionLocalizedNames()};
  for (auto& entry : bundleApps(scopes, context)) entries.push_back(std::move(entry));
  std::size_t applications = 0, extensions = 0;
  for (const auto& entry : entries) {
    (entry.category == AppCategory::application ? applications : extensions) += 1;
  }
  auto emulators = emulatorApps(environment);
  std::size_t devices = emulators.size();
  for (auto& entry : emulators) entries.push_back(std::move(entry));
  log(std::to_string(applications) + " of app(s) founded");
  log(std::to_string(extensions) + " of sysexs founded");
  log(std::to_string(devices) + " of xcodedves founded");

  std::size_t count = entries.size();
  AppListRef list = appRef_.replace(std::move(entries));
  isReady_ = true;
  finalUpdatedTimestamp_ = secondsSince1970();
  {
    std::lock_guard guard(stateMutex_);
    isIndexing_ = scanQueued_;
  }
  // Watching starts before anyone hears of the list, and reports the
  // folders that changed since the walk began (a file that landed between
  // the walk and the watch).
  startWatching(scanStarted - kFolderTimeGranularity);
  NotificationCenter::shared().post(kAppIndexDidUpdate);
  NotificationCenter::shared().post(kAppIndexerStateDidChange);
  for (const auto& handler : handlers) handler(list);
  log("Task finished, indexed " + std::to_string(count) + " of app(s)");
  log("#aindex measure: " + milliseconds(benchmark.elapsed()));
}

// --- change watching ---

void AppIndexer::startWatching(double reportsFoldersChangedSince) {
  std::vector<std::string> desktopFolders = catalog_->directories();
  std::vector<std::string> others = searchScopes();
  for (const auto& location : settingsLocations(options_.environment)) {
    if (isDirectory(location)) others.push_back(location);
  }
  for (const auto& location : fixedApplicationLocations(options_.environment)) {
    if (isDirectory(location)) others.push_back(location);
  }
  std::vector<std::string> paths = desktopFolders;
  for (const auto& path : others) {
    if (std::find(paths.begin(), paths.end(), path) == paths.end()) paths.push_back(path);
  }
  {
    std::lock_guard guard(stateMutex_);
    if (paths == watchedPaths_) return;
    watchedPaths_ = paths;
  }
  if (!options_.watchesFileEvents) return;
  FileWatchOptions watchOptions;
  watchOptions.reportsFoldersChangedSince = reportsFoldersChangedSince;
  // Desktop entries may sit in subfolders; bundles are looked for a few
  // levels down, and inside a bundle only its Contents folder matters.
  watchOptions.watchesFolder = [desktopFolders, others](std::string_view folder) {
    for (const auto& root : desktopFolders) {
      if (isAtOrBelow(folder, root)) return depthBelow(folder, root) <= kDesktopFolderDepth;
    }
    for (const auto& root : others) {
      if (!isAtOrBelow(folder, root)) continue;
      std::string below(folder.substr(root.size()));
      if (auto bundle = enclosingBundle(below)) {
        return below == *bundle || below == *bundle + "/Contents";
      }
      return depthBelow(folder, root) < kBundleSearchDepth;
    }
    return true;
  };
  std::shared_ptr<Liveness> liveness = liveness_;
  watching_ = true;
  fileEvents().startWatching(
      paths, fileEventWatcherIdentifier_, fseventQueue_, std::nullopt,
      [liveness](std::vector<FileEvent> events) {
        std::shared_lock guard(liveness->mutex);
        if (liveness->indexer) liveness->indexer->handleFileEvents(std::move(events));
      },
      watchOptions);
}

bool AppIndexer::isWatched(const std::string& path) const {
  std::lock_guard guard(stateMutex_);
  return std::any_of(watchedPaths_.begin(), watchedPaths_.end(),
                     [&](const std::string& root) { return isAtOrBelow(path, root); });
}

bool AppIndexer::isUnderDesktopFolder(const std::string& path) const {
  const auto& folders = catalog_->directories();
  return std::any_of(folders.begin(), folders.end(),
                     [&](const std::string& folder) { return isAtOrBelow(path, folder); });
}

void AppIndexer::handleFileEvents(std::vector<FileEvent> events) {
  constexpr uint32_t kFolderRescan = kFileEventMustScanSubDirs | kFileEventFolderChanged | kFileEventRootChanged;
  for (const auto& event : events) {
    if (!isReady_) continue;  // the list is not loaded yet
    if (event.has(kFileEventHistoryDone) || event.has(kFileEventHistoryIncomplete)) continue;
    if (event.path.empty() || !isWatched(event.path)) continue;
    bool added = false;
    if (event.has(kFileEventCreated)) {
      addPath(event.path);
      added = true;
    }
    if (event.has(kFileEventRenamed)) {
      // Both halves of a move in one event: the old location goes with the
      // remove batch, the new one is added.
      lastRenameEventID_ = event.id;
      lastPath_ = event.path;
      requestRemoveBatch();
      addPath(event.path);
      added = true;
    }
    if (event.has(kFileEventRemoved)) requestRemoveBatch();
    if (event.has(kFileEventModified) && !added) {
      addPath(event.path);
      added = true;
    }
    if ((event.flags & kFolderRescan) && !added && !event.has(kFileEventRemoved)) addPath(event.path);
  }
}

std::shared_ptr<Throttler> AppIndexer::moveOutThrottler() {
  std::lock_guard guard(throttlersMutex_);
  if (!moveOutThrottler_) {
    moveOutThrottler_ = Throttler::make(DelayPolicy::always, fseventOperationQueue_, options_.throttleDelaySeconds);
  }
  return moveOutThrottler_;
}

std::shared_ptr<Throttler> AppIndexer::fseventAddThrottler() {
  std::lock_guard guard(throttlersMutex_);
  if (!fseventAddThrottler_) {
    fseventAddThrottler_ = Throttler::make(DelayPolicy::always, fseventOperationQueue_, options_.throttleDelaySeconds);
  }
  return fseventAddThrottler_;
}

void AppIndexer::addPath(const std::string& path) {
  {
    std::lock_guard guard(filesAddQueueLock_);
    filesAddQueue_.insert(path);
  }
  fseventAddThrottler()->throttle(Liveness::guarded(liveness_, &AppIndexer::runAddBatch));
}

void AppIndexer::requestRemoveBatch() {
  moveOutThrottler()->throttle(Liveness::guarded(liveness_, &AppIndexer::runRemoveBatch));
}

std::vector<AppEntry> AppIndexer::withDesktopEntriesRefreshed(std::vector<AppEntry> entries) {
  auto catalog = catalog_->refresh();
  std::vector<AppEntry> next = desktopEntryApps(*catalog, options_.environment, lastUsedReader_.records());
  for (auto& entry : entries) {
    if (!isDesktopEntryApp(entry)) next.push_back(std::move(entry));
  }
  return next;
}

void AppIndexer::runAddBatch() {
  Benchmark benchmark;
  std::set<std::string> paths;
  {
    std::lock_guard guard(filesAddQueueLock_);
    paths.swap(filesAddQueue_);
  }
  std::vector<AppEntry> before = appRef_.copy();
  std::vector<AppEntry> entries = before;
  BundleScanContext context{options_.environment, venturaSystemExtensionLocalizedNames()};
  std::vector<std::string> roots = watchedPaths();
  bool desktopChanged = false;
  for (const auto& path : paths) {
    if (isUnderDesktopFolder(path)) {
      desktopChanged = true;
      continue;
    }
    // The bundle the path belongs to, looked for below the watched folder
    // (a settings location may itself lie inside a bundle).
    std::optional<std::string> bundle;
    for (const auto& root : roots) {
      if (!isAtOrBelow(path, root)) continue;
      if (auto below = enclosingBundle(path.substr(root.size()))) bundle = root + *below;
      break;
    }
    if (bundle) {
      std::erase_if(entries, [&](const AppEntry& entry) { return entry.path == *bundle; });
      if (auto entry = bundleApp(*bundle, context)) entries.push_back(std::move(*entry));
    } else if (path.ends_with(".appexlist") || isDirectory(path)) {
      std::string folder = path.ends_with(".appexlist") ? path.substr(0, path.rfind('/')) : path;
      for (auto& entry : bundleAppsBelow(folder, context)) upsert(entries, std::move(entry));
    }
  }
  if (desktopChanged) entries = withDesktopEntriesRefreshed(std::move(entries));
  bool changed = entries != before;
  if (changed) publish(std::move(entries), /*notify=*/true);
  log("#aindex conflate resolved: " + std::to_string(paths.size()) + " path(s), " +
      (changed ? "list changed" : "list unchanged") + ", measure: " + milliseconds(benchmark.elapsed()));
}

void AppIndexer::runRemoveBatch() {
  Benchmark benchmark;
  std::vector<AppEntry> before = appRef_.copy();
  std::vector<AppEntry> entries = before;
  std::size_t gone = std::erase_if(
      entries, [](const AppEntry& entry) { return !isDesktopEntryApp(entry) && !exists(entry.path); });
  entries = withDesktopEntriesRefreshed(std::move(entries));
  bool changed = entries != before;
  if (changed) publish(std::move(entries), /*notify=*/true);
  log("#aindex rm ***, " + std::to_string(gone) + " bundle(s) gone, " +
      (changed ? "list changed" : "list unchanged") + ", measure: " + milliseconds(benchmark.elapsed()));
}

void AppIndexer::waitForPendingChanges() {
  fseventQueue_->sync([] {});
  fseventOperationQueue_->sync([] {});
}

}  // namespace quorvi

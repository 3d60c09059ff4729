#include "apps/desktop_catalog.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "apps/app_environment.h"

namespace quorvi {

namespace {

// Deeper folders than this are not read (a link cycle ends here too).
constexpr int kMaxFolderDepth = 8;

int64_t nanoseconds(const struct timespec& time) {
  return int64_t(time.tv_sec) * 1000000000LL + time.tv_nsec;
}

int64_t modificationTime(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return -1;
  return nanoseconds(info.st_mtim);
}

}  // namespace

DesktopCatalogSnapshot::DesktopCatalogSnapshot(std::vector<DesktopEntry> entries, uint64_t generation)
    : entries_(std::move(entries)), generation_(generation) {
  for (std::size_t i = 0; i < entries_.size(); ++i) byPath_.emplace(entries_[i].filePath, i);
}

const DesktopEntry* DesktopCatalogSnapshot::entryWithId(std::string_view desktopId) const {
  auto found = std::lower_bound(entries_.begin(), entries_.end(), desktopId,
                                [](const DesktopEntry& entry, std::string_view id) { return entry.desktopId < id; });
  return found != entries_.end() && found->desktopId == desktopId ? &*found : nullptr;
}

const DesktopEntry* DesktopCatalogSnapshot::entryAtPath(std::string_view filePath) const {
  auto found = byPath_.find(filePath);
  return found == byPath_.end() ? nullptr : &entries_[found->second];
}

DesktopCatalog& DesktopCatalog::shared() {
  static auto* catalog = new DesktopCatalog(AppEnvironment::standard().applicationDirectories());
  return *catalog;
}

DesktopCatalog::DesktopCatalog(std::vector<std::string> applicationDirectories)
    : directories_(std::move(applicationDirectories)),
      queue_(DispatchQueue::makeSerial("com.quorvi.desktopcatalog", QualityOfService::background)) {}

DesktopCatalog::~DesktopCatalog() {
  queue_->sync([] {});  // a queued refresh must not outlive the catalog
}

DesktopCatalogSnapshotRef DesktopCatalog::snapshot() {
  {
    std::lock_guard guard(publishLock_);
    if (snapshot_) return snapshot_;
  }
  std::lock_guard first(firstReadLock_);
  {
    std::lock_guard guard(publishLock_);
    if (snapshot_) return snapshot_;  // another first reader got there
  }
  return refresh();
}

DesktopCatalogSnapshotRef DesktopCatalog::currentSnapshot() {
  Signature signature;
  DesktopCatalogSnapshotRef current;
  {
    std::lock_guard guard(publishLock_);
    current = snapshot_;
    signature = signature_;
  }
  if (!current) return snapshot();
  if (isStale(signature)) refreshInBackground();
  return current;
}

DesktopCatalogSnapshotRef DesktopCatalog::refresh() {
  // Run here rather than handed to the queue and waited for: a thread of the
  // background pool parked on the queue would leave the parse one thread fewer.
  std::lock_guard refreshing(refreshLock_);
  runRefresh();
  std::lock_guard guard(publishLock_);
  return snapshot_;
}

void DesktopCatalog::refreshInBackground() {
  {
    std::lock_guard guard(publishLock_);
    if (refreshQueued_) return;
    refreshQueued_ = true;
  }
  queue_->async([this] { refresh(); });
}

std::size_t DesktopCatalog::lastParsedCount() const { return lastParsed_.load(); }

bool DesktopCatalog::isStale(const Signature& signature) const {
  for (const auto& [folder, time] : signature) {
    if (modificationTime(folder) != time) return true;
  }
  return false;
}

void DesktopCatalog::walk(const std::string& root, int rootFd, const std::string& folder,
                          const std::string& idPrefix, int depth, std::vector<FoundFile>& found,
                          Signature& signature, std::set<std::pair<dev_t, ino_t>>& visited) const {
  int fd = folder.empty() ? ::dup(rootFd) : ::openat(rootFd, folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat folderInfo;
  if (::fstat(fd, &folderInfo) != 0 || !visited.emplace(folderInfo.st_dev, folderInfo.st_ino).second) {
    ::close(fd);
    return;
  }
  signature.emplace_back(folder.empty() ? root : root + "/" + folder, nanoseconds(folderInfo.st_mtim));
  DIR* dir = ::fdopendir(fd);
  if (!dir) {
    ::close(fd);
    return;
  }
  std::vector<std::string> subfolders;
  while (dirent* item = ::readdir(dir)) {
    std::string_view name = item->d_name;
    if (name == "." || name == "..") continue;
    bool isDesktopFile = name.size() > 8 && name.ends_with(".desktop");
    if (!isDesktopFile && item->d_type != DT_DIR && item->d_type != DT_LNK && item->d_type != DT_UNKNOWN) continue;
    struct stat info;
    if (::fstatat(::dirfd(dir), item->d_name, &info, 0) != 0) continue;  // links followed
    std::string relative = folder.empty() ? std::string(name) : folder + "/" + std::string(name);
    if (S_ISDIR(info.st_mode)) {
      if (depth < kMaxFolderDepth) subfolders.push_back(relative);
    } else if (isDesktopFile && S_ISREG(info.st_mode)) {
      found.push_back({root + "/" + relative, idPrefix + std::string(name), info.st_dev, info.st_ino, info.st_size,
                       nanoseconds(info.st_mtim)});
    }
  }
  ::closedir(dir);
  for (const auto& subfolder : subfolders) {
    std::string name = subfolder.substr(subfolder.rfind('/') + 1);
    walk(root, rootFd, subfolder, idPrefix + name + "-", depth + 1, found, signature, visited);
  }
}

void DesktopCatalog::runRefresh() {
  {
    std::lock_guard guard(publishLock_);
    refreshQueued_ = false;
  }
  // Each id's candidates in order of precedence.
  Signature signature;
  std::vector<std::string> idOrder;
  std::unordered_map<std::string, std::vector<FoundFile>> candidates;
  for (const auto& root : directories_) {
    int rootFd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootFd < 0) {
      signature.emplace_back(root, -1);  // its appearance is a change too
      continue;
    }
    std::vector<FoundFile> found;
    std::set<std::pair<dev_t, ino_t>> visited;
    walk(root, rootFd, "", "", 0, found, signature, visited);
    ::close(rootFd);
    for (auto& file : found) {
      auto& list = candidates[file.desktopId];
      if (list.empty()) idOrder.push_back(file.desktopId);
      list.push_back(std::move(file));
    }
  }

  auto isCurrent = [this](const FoundFile& file) {
    auto cached = cache_.find(file.path);
    return cached != cache_.end() && cached->second.device == file.device && cached->second.inode == file.inode &&
           cached->second.size == file.size && cached->second.modified == file.modified;
  };
  // Parse, in rounds: first each id's preferred file; an id whose file
  // proved unreadable moves on to its next candidate.
  std::unordered_map<std::string, std::size_t> choice;  // id -> index of the candidate in use
  std::vector<std::string> pending = idOrder;
  std::size_t parsed = 0;
  bool changed = false;
  while (!pending.empty()) {
    std::vector<const FoundFile*> toParse;
    for (const auto& id : pending) {
      const FoundFile& file = candidates[id][choice[id]];
      if (!isCurrent(file)) toParse.push_back(&file);
    }
    std::vector<std::optional<DesktopEntry>> results(toParse.size());
    concurrentPerform(
        toParse.size(),
        [&](std::size_t i) { results[i] = readDesktopEntry(toParse[i]->path, toParse[i]->desktopId); },
        QualityOfService::background);
    for (std::size_t i = 0; i < toParse.size(); ++i) {
      const FoundFile& file = *toParse[i];
      cache_[file.path] = CachedFile{file.device, file.inode, file.size, file.modified, std::move(results[i])};
    }
    parsed += toParse.size();
    changed = changed || !toParse.empty();
    std::vector<std::string> next;
    for (const auto& id : pending) {
      const FoundFile& file = candidates[id][choice[id]];
      if (!cache_[file.path].entry && choice[id] + 1 < candidates[id].size()) {
        ++choice[id];
        next.push_back(id);
      }
    }
    pending = std::move(next);
  }

  std::vector<DesktopEntry> entries;
  for (const auto& id : idOrder) {
    const auto& cached = cache_[candidates[id][choice[id]].path];
    if (cached.entry && !cached.entry->hidden) entries.push_back(*cached.entry);
  }
  std::sort(entries.begin(), entries.end(),
            [](const DesktopEntry& a, const DesktopEntry& b) { return a.desktopId < b.desktopId; });

  // Forget files that are gone.
  std::unordered_set<std::string> present;
  for (const auto& [id, files] : candidates) {
    for (const auto& file : files) present.insert(file.path);
  }
  std::erase_if(cache_, [&](const auto& item) { return !present.count(item.first); });

  lastParsed_.store(parsed);
  std::lock_guard guard(publishLock_);
  signature_ = std::move(signature);
  if (snapshot_ && !changed) {
    // Same files: publish only when the winners moved (a file removed or
    // added that was already parsed before).
    bool same = snapshot_->entries().size() == entries.size();
    for (std::size_t i = 0; same && i < entries.size(); ++i) {
      same = snapshot_->entries()[i].filePath == entries[i].filePath;
    }
    if (same) return;
  }
  snapshot_ = std::make_shared<const DesktopCatalogSnapshot>(std::move(entries), ++generation_);
}

}  // namespace quorvi

#include "fileindex/file_upkeep.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <unordered_map>

namespace quorvi {

namespace {

bool isAtOrUnder(std::string_view path, std::string_view folder) {
  if (path.size() < folder.size() || path.compare(0, folder.size(), folder) != 0) return false;
  return path.size() == folder.size() || folder.back() == '/' || path[folder.size()] == '/';
}

std::string parentPath(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return "";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string childPath(const std::string& folder, std::string_view name) {
  std::string path = folder;
  if (path.back() != '/') path.push_back('/');
  path.append(name);
  return path;
}

bool isRealFolder(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// Drops the paths that lie at or under another one of the set.
std::vector<std::string> outermost(const std::set<std::string>& paths) {
  std::vector<std::string> kept;
  for (const auto& path : paths) {  // sorted: a folder comes before what lies below it
    if (!kept.empty() && isAtOrUnder(path, kept.back())) continue;
    bool covered = std::any_of(kept.begin(), kept.end(), [&](const std::string& k) { return isAtOrUnder(path, k); });
    if (!covered) kept.push_back(path);
  }
  return kept;
}

// What the index records in one folder: name -> (inode, time, folder flag).
struct Recorded {
  uint64_t inode;
  uint32_t time;
  bool isDirectory;
};

}  // namespace

void FileUpkeep::note(const std::vector<FileEvent>& events) {
  std::lock_guard lock(mutex_);
  for (const auto& event : events) {
    if (event.has(kFileEventHistoryIncomplete)) {
      pending_.everything = true;
      continue;
    }
    if (event.path.empty()) continue;
    if (event.has(kFileEventMustScanSubDirs)) pending_.subtrees.insert(event.path);
    if (event.has(kFileEventFolderChanged)) pending_.folders.insert(event.path);
    if (event.has(kFileEventRenamed)) {
      pending_.items.insert(event.movedFrom);
      if (event.has(kFileEventIsDirectory)) pending_.moves.emplace_back(event.movedFrom, event.path);
    }
    if (event.flags & (kFileEventCreated | kFileEventRemoved | kFileEventModified | kFileEventRenamed |
                       kFileEventRootChanged)) {
      pending_.items.insert(event.path);
    }
    // An entry that came or went changed its folder's time, which no event
    // reports: the folder's own record is looked at too.
    if (event.flags & (kFileEventCreated | kFileEventRemoved | kFileEventRenamed)) {
      pending_.items.insert(parentPath(event.path));
      if (event.has(kFileEventRenamed)) pending_.items.insert(parentPath(event.movedFrom));
    }
  }
}

void FileUpkeep::noteItem(const std::string& path) {
  std::lock_guard lock(mutex_);
  pending_.items.insert(path);
}

void FileUpkeep::noteEverything() {
  std::lock_guard lock(mutex_);
  pending_.everything = true;
}

bool FileUpkeep::hasPending() const {
  std::lock_guard lock(mutex_);
  return pending_.everything || !pending_.items.empty() || !pending_.folders.empty() || !pending_.subtrees.empty() ||
         !pending_.moves.empty();
}

void FileUpkeep::clear() {
  std::lock_guard lock(mutex_);
  pending_ = Pending{};
}

IndexEditor::Change FileUpkeep::prepare(const ScopeRules& rules, const FileSegments& index,
                                        std::vector<std::string>& log) {
  Pending pending;
  {
    std::lock_guard lock(mutex_);
    std::swap(pending, pending_);
  }
  IndexEditor::Change change;
  const auto& scopes = rules.scopes();
  auto isScope = [&](const std::string& path) { return std::find(scopes.begin(), scopes.end(), path) != scopes.end(); };
  std::shared_ptr<const FolderTree> tree = index.empty() ? std::make_shared<FolderTree>() : index.front()->sharedFolders();
  auto known = [&](const std::string& folder) { return tree->find(folder) != FolderTree::kNotFound; };

  if (pending.everything) {
    pending = Pending{};
    pending.subtrees.insert(scopes.begin(), scopes.end());
  }

  // Folders moved: their records follow when the rules see the two places
  // alike; otherwise the new place is walked and the old one goes.
  for (const auto& [from, to] : pending.moves) {
    if (isRealFolder(to) && !exists(from) && known(from) && known(parentPath(to)) && rules.enters(to) &&
        rules.movesAlike(from, to)) {
      change.movedFolders.emplace_back(from, to);
      log.push_back("#fs mv " + from + " -> " + to);
    } else {
      pending.subtrees.insert(to);
    }
  }

  std::set<std::string> walks;
  auto walkLater = [&](const std::string& folder) { walks.insert(folder); };

  // Subtrees to walk (a folder that appeared, or one to compare whole).
  for (const auto& folder : outermost(pending.subtrees)) {
    if (isScope(folder)) {
      if (isRealFolder(folder) || (exists(folder) && rules.enters(folder))) {
        walkLater(folder);
      } else {
        pending.items.insert(folder);
      }
      continue;
    }
    pending.items.insert(folder);  // its own record
    if (isRealFolder(folder) && rules.enters(folder)) walkLater(folder);
  }

  // Folders whose entries may have changed unseen: list and compare.
  std::unordered_map<uint32_t, std::string> compared;  // folder id -> path
  for (const auto& folder : pending.folders) {
    if (!isRealFolder(folder) || !(rules.enters(folder) || isScope(folder))) {
      pending.items.insert(folder);
      continue;
    }
    uint32_t id = tree->find(folder);
    if (id == FolderTree::kNotFound) {
      if (!isScope(folder)) pending.items.insert(folder);
      walkLater(folder);
      continue;
    }
    compared[id] = folder;
    // Entries that came or went changed the folder's own time. (A trash
    // folder keeps the record the run gave it: items are judged as a
    // search judges hits, and that would drop it.)
    if (!isScope(folder) && !isTrashPath(folder, rules.homeDirectory())) pending.items.insert(folder);
  }
  if (!compared.empty()) {
    std::unordered_map<uint32_t, std::unordered_map<std::string, Recorded>> recorded;
    for (const auto& segment : index) {
      for (std::size_t row = 0; row < segment->size(); ++row) {
        if (!segment.isLive(row)) continue;
        auto it = compared.find(segment->folderOf(row));
        if (it == compared.end()) continue;
        recorded[it->first][segment->name(row)] = {segment->inode(row),
                                                   static_cast<uint32_t>(segment->lastUsedTimestamp(row)),
                                                   segment->isDirectory(row)};
      }
    }
    for (const auto& [id, folder] : compared) {
      auto& inIndex = recorded[id];
      DIR* dir = ::opendir(folder.c_str());
      if (!dir) continue;
      while (dirent* entry = ::readdir(dir)) {
        std::string_view name(entry->d_name);
        if (name == "." || name == "..") continue;
        std::string path = childPath(folder, name);
        auto it = inIndex.find(std::string(name));
        ItemRow row;
        bool present = readItem(path, row);
        bool same = present && it != inIndex.end() && it->second.inode == row.inode &&
                    it->second.time == static_cast<uint32_t>(row.lastUsedTimestamp) &&
                    it->second.isDirectory == row.isDirectory;
        if (it != inIndex.end()) inIndex.erase(it);
        if (!same) pending.items.insert(path);
        if (present && row.isDirectory && isRealFolder(path) && !known(path) && rules.enters(path)) walkLater(path);
      }
      ::closedir(dir);
      for (const auto& [name, gone] : inIndex) pending.items.insert(childPath(folder, name));
    }
  }

  // Items: what is there now decides.
  std::vector<std::string> walkList(walks.begin(), walks.end());
  auto walked = [&](const std::string& path) {
    return std::any_of(walkList.begin(), walkList.end(), [&](const std::string& w) { return isAtOrUnder(path, w) && path != w; });
  };
  for (const auto& path : pending.items) {
    if (path.empty() || path.front() != '/' || walked(path)) continue;
    if (isScope(path)) {
      if (!isRealFolder(path) && !exists(path)) {
        change.removed.push_back(path);
        log.push_back("#fs rm " + path);
      }
      continue;
    }
    ItemRow row;
    if (!readItem(path, row)) {
      change.removed.push_back(path);
      log.push_back("#fs rm " + path);
      continue;
    }
    // Trash: a run records it, but a search drops it from the index, and so
    // does the upkeep.
    if (rules.records(path) && !isTrashPath(path, rules.homeDirectory())) {
      change.upserted.push_back({path, row});
      log.push_back("#fs put " + path);
      if (row.isDirectory && isRealFolder(path) && !known(path) && rules.enters(path) && !walks.count(path)) {
        walks.insert(path);
        walkList.push_back(path);
      }
    } else if (rules.enters(path)) {
      change.unrecorded.push_back(path);  // an ignored folder whose contents still count
      log.push_back("#fs unrecord " + path);
    } else {
      change.removed.push_back(path);
      log.push_back("#fs rm " + path);
    }
  }

  // The walks last: each replaces what the index holds below its folder.
  std::set<std::string> walkSet(walkList.begin(), walkList.end());
  for (const auto& folder : outermost(walkSet)) {
    std::optional<ScanRoot> root = isScope(folder) ? std::optional<ScanRoot>(rules.rootFor(folder)) : rules.walkBelow(folder);
    if (!root) continue;
    ScopeScan scan(rules);
    IndexEditor::Walked walk;
    walk.folder = folder;
    walk.scan = scan.walk({*root});
    walk.replaces = true;
    log.push_back("#fs walk " + folder + " (" + std::to_string(walk.scan.table ? walk.scan.table->size() : 0) + " items)");
    change.walked.push_back(std::move(walk));
  }
  return change;
}

}  // namespace quorvi

#include "fileindex/scope_scan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "common/dispatch.h"
#include "fileindex/match_text.h"

namespace quorvi {

namespace {

const char* const kPackageExtensions[] = {
    "app",       "bundle",        "framework",     "plugin",       "kext",       "xpc",   "appex",
    "xcodeproj", "xcworkspace",   "xcassets",      "photoslibrary", "musiclibrary", "photolibrary",
    "playground", "rtfd",         "pages",         "numbers",      "key",
};

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && std::memcmp(text.data(), prefix.data(), prefix.size()) == 0;
}

// path lies strictly inside folder (with a separator between).
bool isStrictlyUnder(std::string_view path, std::string_view folder) {
  if (!startsWith(path, folder) || path.size() == folder.size()) return false;
  return folder.back() == '/' || path[folder.size()] == '/';
}

struct ScopeInfo {
  std::string path;
  bool skipHidden = true;
  bool skipPackages = true;
};

struct Task {
  std::string path;
  uint32_t folder = 0;
  uint32_t scope = 0;                  // index into Walk::scopes
  std::vector<uint16_t> covers;        // earlier scopes whose walk reaches this folder's entries
  bool isRoot = false;
};

struct WorkerOutput {
  struct Row {
    double lastUsed;
    uint64_t device;
    uint64_t inode;
    uint32_t folder;
    uint32_t offset;       // name, then match text, in text
    uint32_t nameLength;
    uint32_t matchLength;
    bool isDirectory;
  };
  struct FolderNode {
    uint32_t id;
    uint32_t parent;
    uint32_t offset;
    uint32_t length;
  };
  std::vector<Row> rows;
  std::vector<FolderNode> folders;
  std::string text;
};

struct LinuxDirent64 {
  ino64_t d_ino;
  off64_t d_off;
  unsigned short d_reclen;
  unsigned char d_type;
  char d_name[];
};

double modificationTime(const struct stat& st) {
  return static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) * 1e-9;
}

}  // namespace

std::vector<std::string> cloudDriveScopes(const std::string& home) {
  return {home + "/Library/Mobile Documents", home + "/Nextcloud", home + "/ownCloud", home + "/Dropbox",
          home + "/OneDrive", home + "/pCloudDrive", home + "/MEGA", home + "/Seafile"};
}

EnumeratePath enumeratePathFor(const std::string& scope, const std::string& home) {
  EnumeratePath enumerate{scope, kSkipsPackageDescendants | kSkipsHiddenFiles, {}};
  for (const auto& cloud : cloudDriveScopes(home)) {
    if (scope == cloud) enumerate.option = kSkipsPackageDescendants;
  }
  return enumerate;
}

bool isPackageName(std::string_view name) {
  std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return false;
  std::string extension = lowercasedName(name.substr(dot + 1));
  for (const char* candidate : kPackageExtensions) {
    if (extension == candidate) return true;
  }
  return false;
}

std::string normalizedScope(std::string scope) {
  while (scope.size() > 1 && scope.back() == '/') scope.pop_back();
  return scope;
}

struct ScopeScan::Walk {
  const ScopeScan& scan;
  std::vector<ScopeInfo> scopes;                    // earlier scopes, then the new ones
  std::vector<std::vector<uint16_t>> earlierInside; // per scope: earlier scopes strictly inside it
  std::mutex mutex;
  std::condition_variable wake;
  std::vector<Task> stack;
  std::size_t pending = 0;  // tasks queued or being worked on
  std::atomic<bool> stopped{false};
  std::atomic<uint32_t> nextFolder{0};
  std::vector<WorkerOutput> outputs;

  explicit Walk(const ScopeScan& s) : scan(s) {}

  bool cancelled() const {
    return scan.generation_ && scan.generation_->load(std::memory_order_relaxed) != scan.expected_;
  }

  void work(WorkerOutput& out) {
    std::vector<Task> children;
    std::vector<char> buffer(64 * 1024);
    std::string path;
    for (;;) {
      Task task;
      {
        std::unique_lock lock(mutex);
        wake.wait(lock, [&] { return !stack.empty() || pending == 0; });
        if (stack.empty()) return;
        task = std::move(stack.back());
        stack.pop_back();
      }
      children.clear();
      if (!stopped.load(std::memory_order_relaxed)) {
        if (cancelled()) {
          stopped = true;
        } else {
          readFolder(task, out, children, buffer, path);
        }
      }
      std::lock_guard lock(mutex);
      pending += children.size();
      for (auto& child : children) stack.push_back(std::move(child));
      --pending;
      if (!children.empty() || pending == 0) wake.notify_all();
    }
  }

  void readFolder(const Task& task, WorkerOutput& out, std::vector<Task>& children, std::vector<char>& buffer,
                  std::string& path) {
    int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (task.isRoot ? 0 : O_NOFOLLOW);
    int fd = ::open(task.path.c_str(), flags);
    if (fd < 0) return;
    const ScopeInfo& scope = scopes[task.scope];
    path = task.path;
    if (path.empty() || path.back() != '/') path.push_back('/');
    const std::size_t base = path.size();
    int64_t recorded = 0;
    for (;;) {
      long bytes = ::syscall(SYS_getdents64, fd, buffer.data(), buffer.size());
      if (bytes <= 0) break;
      for (long at = 0; at < bytes;) {
        auto* entry = reinterpret_cast<LinuxDirent64*>(buffer.data() + at);
        at += entry->d_reclen;
        std::string_view name(entry->d_name);
        if (name == "." || name == "..") continue;
        bool hidden = name.front() == '.';
        if (hidden && scope.skipHidden) continue;
        path.resize(base);
        path.append(name);
        recorded += visit(task, fd, name, entry->d_type, hidden, path, out, children);
      }
    }
    ::close(fd);
    if (scan.progress_ && recorded) scan.progress_->fetch_add(recorded, std::memory_order_relaxed);
  }

  // Handles one entry; returns 1 when a record was made.
  int visit(const Task& task, int fd, std::string_view name, unsigned char type, bool hidden, const std::string& path,
            WorkerOutput& out, std::vector<Task>& children) {
    struct stat st;
    bool haveStat = false;
    if (type == DT_UNKNOWN) {
      if (::fstatat(fd, name.data(), &st, AT_SYMLINK_NOFOLLOW) != 0) return 0;
      haveStat = true;
      type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISLNK(st.st_mode) ? DT_LNK : DT_REG;
    }
    const bool isFolder = type == DT_DIR;
    const bool isPackage = isFolder && isPackageName(name);
    const bool ignored = scan.filter_.isIgnored(path);
    bool yieldedEarlier = false;
    for (uint16_t c : task.covers) {
      if (!scopes[c].skipHidden || !hidden) yieldedEarlier = true;
    }
    int made = 0;
    if (!ignored && !yieldedEarlier) {
      if (haveStat || ::fstatat(fd, name.data(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        bool isDirectory = S_ISDIR(st.st_mode);
        if (S_ISLNK(st.st_mode)) {
          struct stat target;
          isDirectory = ::fstatat(fd, name.data(), &target, 0) == 0 && S_ISDIR(target.st_mode);
        }
        std::string match = matchTextOfName(name);
        WorkerOutput::Row row{modificationTime(st), static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino),
                              task.folder, static_cast<uint32_t>(out.text.size()), static_cast<uint32_t>(name.size()),
                              static_cast<uint32_t>(match.size()), isDirectory};
        out.text.append(name);
        out.text.append(match);
        out.rows.push_back(row);
        made = 1;
      }
    }
    if (!isFolder) return made;
    if (isPackage && scopes[task.scope].skipPackages) return made;
    if (ignored && scan.filter_.ignoresEverythingUnder(path)) return made;
    Task child;
    child.path = path;
    child.scope = task.scope;
    for (uint16_t c : task.covers) {
      const ScopeInfo& earlier = scopes[c];
      if ((!earlier.skipHidden || !hidden) && !(earlier.skipPackages && isPackage)) child.covers.push_back(c);
    }
    for (uint16_t e : earlierInside[task.scope]) {
      if (scopes[e].path == path) child.covers.push_back(e);
    }
    child.folder = nextFolder.fetch_add(1, std::memory_order_relaxed);
    out.folders.push_back({child.folder, task.folder, static_cast<uint32_t>(out.text.size()),
                           static_cast<uint32_t>(name.size())});
    out.text.append(name);
    children.push_back(std::move(child));
    return made;
  }
};

ScopeScan::ScopeScan(const Filter& filter, std::string homeDirectory)
    : filter_(filter), homeDirectory_(std::move(homeDirectory)) {}

void ScopeScan::setCancellation(const std::atomic<uint64_t>* generation, uint64_t expected) {
  generation_ = generation;
  expected_ = expected;
}

namespace {

// Whether the walk of `earlier` reaches the entries of folder `inner` that
// lies strictly inside it: every step from one to the other is a real folder
// (no symlink) that the earlier walk neither hides nor treats as a package.
bool earlierWalkReachesInside(const ScopeInfo& earlier, const std::string& inner) {
  std::size_t at = earlier.path.size() + (earlier.path.back() == '/' ? 0 : 1);
  while (at <= inner.size()) {
    std::size_t end = inner.find('/', at);
    if (end == std::string::npos) end = inner.size();
    std::string_view component(inner.data() + at, end - at);
    if (!component.empty()) {
      if (earlier.skipHidden && component.front() == '.') return false;
      if (earlier.skipPackages && isPackageName(component)) return false;
      struct stat st;
      std::string prefix = inner.substr(0, end);
      if (::lstat(prefix.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    }
    at = end + 1;
  }
  return true;
}

}  // namespace

ScanResult ScopeScan::run(const std::vector<std::string>& scopes, const std::vector<std::string>& earlierScopes,
                          std::shared_ptr<const FolderTree> base) {
  Walk walk(*this);
  auto tree = base ? std::make_shared<FolderTree>(*base) : std::make_shared<FolderTree>();
  auto addScope = [&](const std::string& scope) {
    EnumeratePath enumerate = enumeratePathFor(scope, homeDirectory_);
    walk.scopes.push_back({normalizedScope(scope), (enumerate.option & kSkipsHiddenFiles) != 0,
                           (enumerate.option & kSkipsPackageDescendants) != 0});
  };
  for (const auto& scope : earlierScopes) addScope(scope);
  const std::size_t firstNew = walk.scopes.size();
  for (const auto& scope : scopes) addScope(scope);
  walk.earlierInside.resize(walk.scopes.size());

  ScanResult result;
  std::vector<Task> roots;
  for (std::size_t k = firstNew; k < walk.scopes.size() && k < UINT16_MAX; ++k) {
    const ScopeInfo& scope = walk.scopes[k];
    if (scope.path.empty() || scope.path.front() != '/') continue;
    Task root;
    root.path = scope.path;
    root.scope = static_cast<uint32_t>(k);
    root.isRoot = true;
    bool duplicate = false;
    for (std::size_t e = 0; e < k; ++e) {
      const ScopeInfo& earlier = walk.scopes[e];
      if (earlier.path == scope.path) duplicate = true;
      else if (isStrictlyUnder(scope.path, earlier.path) && earlierWalkReachesInside(earlier, scope.path))
        root.covers.push_back(static_cast<uint16_t>(e));
      else if (isStrictlyUnder(earlier.path, scope.path))
        walk.earlierInside[k].push_back(static_cast<uint16_t>(e));
    }
    struct stat st;
    if (duplicate || ::stat(scope.path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
    root.folder = tree->addRoot(scope.path);
    result.walkedScopes.push_back(scope.path);
    roots.push_back(std::move(root));
  }
  walk.nextFolder = static_cast<uint32_t>(tree->size());
  walk.pending = roots.size();
  walk.stack = std::move(roots);
  std::reverse(walk.stack.begin(), walk.stack.end());

  const std::size_t workers = std::max<std::size_t>(1, DispatchQueue::threadCount(QualityOfService::background));
  walk.outputs.resize(workers);
  concurrentPerform(workers, [&](std::size_t i) { walk.work(walk.outputs[i]); }, QualityOfService::background);
  result.cancelled = walk.stopped.load() || walk.cancelled();

  // Folders first, so every record's folder id is known to the tree.
  for (const auto& out : walk.outputs) {
    for (const auto& node : out.folders) {
      tree->set(node.id, node.parent, std::string_view(out.text.data() + node.offset, node.length));
    }
  }
  tree->shrink();

  // Newest first: the order in which searches report hits.
  std::vector<std::pair<double, uint64_t>> order;
  std::size_t textBytes = 0;
  for (std::size_t w = 0; w < walk.outputs.size(); ++w) {
    const auto& rows = walk.outputs[w].rows;
    for (std::size_t r = 0; r < rows.size(); ++r) {
      order.emplace_back(rows[r].lastUsed, (static_cast<uint64_t>(w) << 40) | r);
      textBytes += rows[r].matchLength + 1;
    }
  }
  std::sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first > b.first; });

  FileTable::Builder builder(tree);
  builder.reserve(order.size(), textBytes);
  for (const auto& [time, key] : order) {
    const WorkerOutput& out = walk.outputs[key >> 40];
    const WorkerOutput::Row& row = out.rows[key & ((1ull << 40) - 1)];
    FileRow fileRow;
    fileRow.folder = row.folder;
    fileRow.lastUsedTimestamp = row.lastUsed;
    fileRow.device = row.device;
    fileRow.inode = row.inode;
    fileRow.isDirectory = row.isDirectory;
    fileRow.name = std::string_view(out.text.data() + row.offset, row.nameLength);
    fileRow.matchText = std::string_view(out.text.data() + row.offset + row.nameLength, row.matchLength);
    builder.append(fileRow);
  }
  result.table = builder.finish();
  result.folders = tree;
  return result;
}

}  // namespace quorvi

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
#include <unordered_map>
#include <unordered_set>

#include "common/dispatch.h"
#include "fileindex/match_text.h"

namespace quorvi {

namespace {

// Folders a worker reads before it gives its thread back to the pool for a
// moment, so that other background work (file events, other queues) is not
// held up by a long walk.
constexpr std::size_t kFoldersPerTurn = 64;

bool isStrictlyUnder(std::string_view path, std::string_view folder) {
  if (folder.empty() || path.size() <= folder.size() || path.compare(0, folder.size(), folder) != 0) return false;
  return folder.back() == '/' || path[folder.size()] == '/';
}

struct Task {
  std::string path;
  uint32_t folder = 0;
  uint32_t root = 0;  // index into Walk::roots
  bool isRoot = false;
};

struct WorkerOutput {
  struct Row {
    double lastUsed;
    uint64_t device;
    uint64_t inode;
    uint32_t folder;
    uint32_t offset;  // name, then match text, in text
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

// Whether a walk from `outer` reaches into `inner` (a folder below it) and
// records at least what a walk of `inner` itself would.
bool walkCovers(const ScanRoot& outer, const ScanRoot& inner, const Filter& filter) {
  if (!isStrictlyUnder(inner.path, outer.path)) return false;
  if (outer.skipsHidden && !inner.skipsHidden) return false;
  if (!outer.skipsPackages && inner.skipsPackages) return false;
  std::size_t at = outer.path.size() + (outer.path.back() == '/' ? 0 : 1);
  for (;;) {
    std::size_t end = inner.path.find('/', at);
    if (end == std::string::npos) end = inner.path.size();
    std::string_view name(inner.path.data() + at, end - at);
    if (name.empty() || isPlaceholderName(name)) return false;
    if (outer.skipsHidden && name.front() == '.') return false;
    if (outer.skipsPackages && isPackageName(name)) return false;
    std::string prefix = inner.path.substr(0, end);
    struct stat st;
    if (::lstat(prefix.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;  // a link is not walked through
    if (filter.ignoresEverythingUnder(prefix)) return false;
    if (end == inner.path.size()) return true;
    at = end + 1;
  }
}

}  // namespace

EnumeratePath enumeratePathFor(const std::string& scope, const std::string& home) {
  EnumeratePath enumerate{scope, kSkipsPackageDescendants | kSkipsHiddenFiles, {}};
  for (const auto& cloud : cloudDriveScopes(home)) {
    if (normalizedScope(scope) == cloud) enumerate.option = kSkipsPackageDescendants;
  }
  return enumerate;
}

bool readItem(const std::string& path, ItemRow& row) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return false;
  row.isDirectory = S_ISDIR(st.st_mode);
  if (S_ISLNK(st.st_mode)) {
    struct stat target;
    row.isDirectory = ::stat(path.c_str(), &target) == 0 && S_ISDIR(target.st_mode);
  }
  row.lastUsedTimestamp = modificationTime(st);
  row.device = static_cast<uint64_t>(st.st_dev);
  row.inode = static_cast<uint64_t>(st.st_ino);
  std::size_t slash = path.rfind('/');
  row.matchText = matchTextOfName(std::string_view(path).substr(slash == std::string::npos ? 0 : slash + 1));
  return true;
}

struct ScopeScan::Walk : std::enable_shared_from_this<Walk> {
  const ScopeScan& scan;
  const Filter& filter;
  std::vector<ScanRoot> roots;
  std::mutex mutex;
  std::condition_variable finished;
  std::vector<Task> stack;
  std::size_t pending = 0;  // tasks queued or being worked on
  std::size_t workers = 0;  // helpers running or asked for
  std::size_t running = 0;  // helpers that have started and not yet ended
  bool closed = false;      // the walk is over: late helpers do nothing
  std::size_t maxWorkers = 1;
  std::atomic<bool> stopped{false};
  std::atomic<uint32_t> nextFolder{0};
  std::vector<std::unique_ptr<WorkerOutput>> outputs;

  Walk(const ScopeScan& s, const Filter& f) : scan(s), filter(f) {}

  bool cancelled() const {
    return scan.generation_ && scan.generation_->load(std::memory_order_relaxed) != scan.expected_;
  }

  WorkerOutput& newOutput() {
    std::lock_guard lock(mutex);
    outputs.push_back(std::make_unique<WorkerOutput>());
    return *outputs.back();
  }

  // Asks the pool for helpers while there is more waiting than hands on it.
  void askForHelpers(std::unique_lock<std::mutex>& lock) {
    while (workers < maxWorkers && workers < stack.size()) {
      ++workers;
      auto self = shared_from_this();
      lock.unlock();
      DispatchQueue::background().async([self] { self->help(); });
      lock.lock();
    }
  }

  // A pool thread's share: a few folders, then its thread goes back to the
  // pool (and a new turn is asked for if folders are still waiting).
  void help() {
    WorkerOutput* out;
    {
      std::lock_guard lock(mutex);
      if (closed) return;  // asked for, but the walk ended before a thread was free
      ++running;
      outputs.push_back(std::make_unique<WorkerOutput>());
      out = outputs.back().get();
    }
    work(*out, kFoldersPerTurn);
    std::unique_lock lock(mutex);
    --workers;
    --running;
    askForHelpers(lock);
    finished.notify_all();
  }

  // Works on folders until none is waiting (or `budget` are done). Returns
  // how many were read.
  std::size_t work(WorkerOutput& out, std::size_t budget) {
    std::vector<Task> children;
    std::vector<char> buffer(64 * 1024);
    std::string path;
    std::size_t done = 0;
    for (; done < budget; ++done) {
      Task task;
      {
        std::lock_guard lock(mutex);
        if (stack.empty()) break;
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
      std::unique_lock lock(mutex);
      pending += children.size();
      for (auto& child : children) stack.push_back(std::move(child));
      --pending;
      // The caller may be waiting: for the end, or for folders to take on
      // while the helpers asked for cannot get a thread.
      if (!children.empty() || pending == 0) finished.notify_all();
      if (!children.empty()) askForHelpers(lock);
    }
    return done;
  }

  void readFolder(const Task& task, WorkerOutput& out, std::vector<Task>& children, std::vector<char>& buffer,
                  std::string& path) {
    const ScanRoot& root = roots[task.root];
    int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | ((task.isRoot && root.followsLink) ? 0 : O_NOFOLLOW);
    int fd = ::open(task.path.c_str(), flags);
    if (fd < 0) return;
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
        if (root.skipsHidden && name.front() == '.') continue;
        if (isPlaceholderName(name)) continue;
        path.resize(base);
        path.append(name);
        recorded += visit(task, fd, name, entry->d_type, path, out, children);
      }
    }
    ::close(fd);
    if (scan.progress_ && recorded) scan.progress_->fetch_add(recorded, std::memory_order_relaxed);
  }

  // Handles one entry; returns 1 when a record was made.
  int visit(const Task& task, int fd, std::string_view name, unsigned char type, const std::string& path,
            WorkerOutput& out, std::vector<Task>& children) {
    struct stat st;
    bool haveStat = false;
    if (type == DT_UNKNOWN) {
      if (::fstatat(fd, name.data(), &st, AT_SYMLINK_NOFOLLOW) != 0) return 0;
      haveStat = true;
      type = S_ISDIR(st.st_mode) ? DT_DIR : S_ISLNK(st.st_mode) ? DT_LNK : DT_REG;
    }
    const ScanRoot& root = roots[task.root];
    const bool isFolder = type == DT_DIR;
    int made = 0;
    if (!filter.isIgnored(path)) {
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
    if (root.skipsPackages && isPackageName(name)) return made;
    if (filter.ignoresEverythingUnder(path)) return made;
    Task child;
    child.path = path;
    child.root = task.root;
    child.folder = nextFolder.fetch_add(1, std::memory_order_relaxed);
    out.folders.push_back({child.folder, task.folder, static_cast<uint32_t>(out.text.size()),
                           static_cast<uint32_t>(name.size())});
    out.text.append(name);
    children.push_back(std::move(child));
    return made;
  }
};

ScopeScan::ScopeScan(const ScopeRules& rules) : rules_(rules) {}

void ScopeScan::setCancellation(const std::atomic<uint64_t>* generation, uint64_t expected) {
  generation_ = generation;
  expected_ = expected;
}

ScanResult ScopeScan::run() {
  std::vector<ScanRoot> roots;
  for (const auto& scope : rules_.scopes()) roots.push_back(rules_.rootFor(scope));
  return walk(roots);
}

namespace {

// One entry per folder path: an entry whose (parent, name) repeats an
// earlier one's becomes that one. Ids grow from parents to children, so one
// pass in id order settles every chain. Returns the old-to-new id map and
// fills `tree` with the surviving entries.
std::vector<uint32_t> canonicalFolders(const FolderTree& walked, FolderTree& tree) {
  std::vector<uint32_t> canon(walked.size(), FolderTree::kNotFound);
  for (uint32_t id = 0; id < walked.size(); ++id) {
    if (walked.isDetached(id)) continue;
    uint32_t parent = walked.parentOf(id);
    std::string_view name = walked.nameOf(id);
    if (parent == FolderTree::kNoParent) {
      uint32_t existing = tree.child(FolderTree::kNoParent, name);
      canon[id] = existing != FolderTree::kNotFound ? existing : tree.addRoot(name);
      continue;
    }
    if (parent >= canon.size() || canon[parent] == FolderTree::kNotFound) continue;
    uint32_t existing = tree.child(canon[parent], name);
    canon[id] = existing != FolderTree::kNotFound ? existing : tree.add(canon[parent], name);
  }
  return canon;
}

}  // namespace

ScanResult ScopeScan::walk(const std::vector<ScanRoot>& requested) {
  auto walk = std::make_shared<Walk>(*this, rules_.filter());
  auto tree = std::make_shared<FolderTree>();
  ScanResult result;

  // Roots: the same folder once; a root another root's walk covers is not
  // walked again; a root inside another gets its entry on that one's path.
  std::vector<ScanRoot> roots;
  for (const auto& root : requested) {
    ScanRoot normal = root;
    normal.path = normalizedScope(normal.path);
    if (normal.path.empty() || normal.path.front() != '/') continue;
    bool duplicate = std::any_of(roots.begin(), roots.end(), [&](const ScanRoot& r) { return r.path == normal.path; });
    if (!duplicate) roots.push_back(std::move(normal));
  }
  std::sort(roots.begin(), roots.end(), [](const ScanRoot& a, const ScanRoot& b) { return a.path.size() < b.path.size(); });
  std::vector<Task> tasks;
  for (std::size_t k = 0; k < roots.size(); ++k) {
    const ScanRoot& root = roots[k];
    struct stat st;
    int statResult = root.followsLink ? ::stat(root.path.c_str(), &st) : ::lstat(root.path.c_str(), &st);
    if (statResult != 0 || !S_ISDIR(st.st_mode)) continue;
    bool covered = false;
    const ScanRoot* outer = nullptr;
    for (std::size_t j = 0; j < k; ++j) {
      if (!isStrictlyUnder(root.path, roots[j].path)) continue;
      if (!outer || roots[j].path.size() > outer->path.size()) outer = &roots[j];
      covered |= walkCovers(roots[j], root, rules_.filter());
    }
    result.walkedRoots.push_back(root.path);
    if (covered) continue;
    Task task;
    task.path = root.path;
    task.root = static_cast<uint32_t>(walk->roots.size());
    task.isRoot = true;
    if (outer) {
      // The entry on the outer root's path, made folder by folder.
      uint32_t folder = tree->find(outer->path);
      std::size_t at = outer->path.size() + (outer->path.back() == '/' ? 0 : 1);
      while (at <= root.path.size() && folder != FolderTree::kNotFound) {
        std::size_t end = root.path.find('/', at);
        if (end == std::string::npos) end = root.path.size();
        std::string_view name(root.path.data() + at, end - at);
        uint32_t next = tree->child(folder, name);
        folder = next != FolderTree::kNotFound ? next : tree->add(folder, name);
        at = end + 1;
      }
      task.folder = folder;
    } else {
      task.folder = tree->addRoot(root.path);
    }
    walk->roots.push_back(root);
    tasks.push_back(std::move(task));
  }

  walk->nextFolder = static_cast<uint32_t>(tree->size());
  walk->maxWorkers = std::max<std::size_t>(1, DispatchQueue::threadCount(QualityOfService::background));
  {
    std::unique_lock lock(walk->mutex);
    walk->pending = tasks.size();
    walk->stack = std::move(tasks);
    std::reverse(walk->stack.begin(), walk->stack.end());
    // The caller works too; helpers join while folders wait.
    walk->maxWorkers -= 1;
    walk->askForHelpers(lock);
  }
  WorkerOutput& own = walk->newOutput();
  for (;;) {
    walk->work(own, SIZE_MAX);
    std::unique_lock lock(walk->mutex);
    if (walk->pending == 0) break;
    // Helpers are reading the last folders; they may find more.
    walk->finished.wait(lock, [&] { return walk->pending == 0 || !walk->stack.empty(); });
    if (walk->pending == 0) break;
  }
  {
    // Helpers that started finish their folder; those still queued for a
    // thread will find the walk closed (they hold it alive on their own), so
    // the caller never waits for a thread the pool may not have.
    std::unique_lock lock(walk->mutex);
    walk->finished.wait(lock, [&] { return walk->running == 0; });
    walk->closed = true;
  }
  result.cancelled = walk->stopped.load() || walk->cancelled();

  // Folders, then one entry per path.
  for (const auto& out : walk->outputs) {
    for (const auto& node : out->folders) {
      tree->set(node.id, node.parent, std::string_view(out->text.data() + node.offset, node.length));
    }
  }
  auto canonicalTree = std::make_shared<FolderTree>();
  std::vector<uint32_t> canon = canonicalFolders(*tree, *canonicalTree);
  canonicalTree->finish();
  tree.reset();
  const bool overlapping = walk->roots.size() > 1;

  // Newest first: the order in which searches report hits.
  std::vector<std::pair<double, uint64_t>> order;
  std::size_t textBytes = 0;
  for (std::size_t w = 0; w < walk->outputs.size(); ++w) {
    const auto& rows = walk->outputs[w]->rows;
    for (std::size_t r = 0; r < rows.size(); ++r) {
      order.emplace_back(rows[r].lastUsed, (static_cast<uint64_t>(w) << 40) | r);
      textBytes += rows[r].matchLength + 1;
    }
  }
  std::sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first > b.first; });

  FileTable::Builder builder(canonicalTree);
  builder.reserve(order.size(), textBytes);
  // Overlapping walks may record an item twice: keep the first.
  std::unordered_set<std::string> seen;
  for (const auto& [time, key] : order) {
    const WorkerOutput& out = *walk->outputs[key >> 40];
    const WorkerOutput::Row& row = out.rows[key & ((1ull << 40) - 1)];
    if (row.folder >= canon.size() || canon[row.folder] == FolderTree::kNotFound) continue;
    FileRow fileRow;
    fileRow.folder = canon[row.folder];
    fileRow.lastUsedTimestamp = row.lastUsed;
    fileRow.device = row.device;
    fileRow.inode = row.inode;
    fileRow.isDirectory = row.isDirectory;
    fileRow.name = std::string_view(out.text.data() + row.offset, row.nameLength);
    fileRow.matchText = std::string_view(out.text.data() + row.offset + row.nameLength, row.matchLength);
    if (overlapping && !seen.insert(std::to_string(fileRow.folder) + "/" + std::string(fileRow.name)).second) continue;
    builder.append(fileRow);
  }
  result.table = builder.finish();
  result.folders = canonicalTree;
  return result;
}

}  // namespace quorvi

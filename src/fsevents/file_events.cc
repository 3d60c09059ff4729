// The file-events service on inotify.
//
// Threads. One reader thread only reads the inotify descriptor and hands each
// read on (inotify_reader.h). Everything else happens on one serial queue of
// the background pool, "com.quorvi.fsevents": turning raw events into file
// events, setting watches, listing new folders, sweeps, the journal. The
// state in Impl is touched there only, apart from the counters.
//
// Watches. Every folder the service keeps current is a node of one
// WatchTree, shared by all watchers: a folder two watchers want costs one
// watch, and a node carries the bit set of the watchers that want it. A
// watcher's folder predicate decides which folders get its bit.
//
// Setting watches. A folder is watched first and listed after, so that an
// entry created in between is seen either by the listing or by an event
// (duplicates are possible, misses are not). Folders are armed breadth
// first, shallow ones first, until the watch budget is spent; the rest are
// kept current by sweeps, and sweeps hand watches over to swept folders that
// change. Big subtrees are armed in slices, so events of other folders keep
// flowing meanwhile.
//
// Renames. inotify reports a rename as two halves sharing a cookie, which
// may arrive in different reads. A first half waits briefly for its second;
// a half that stays alone is an item that left the watched folders.
#include "fsevents/file_events.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <thread>
#include <unordered_map>

#include "fsevents/event_journal.h"
#include "fsevents/inotify_reader.h"
#include "fsevents/watch_tree.h"
#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

constexpr std::size_t kMaxWatchers = 16;
constexpr uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB |
                                 IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;
constexpr uint32_t kWaitingMask = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Folders armed per slice before events get a turn again.
constexpr std::size_t kArmSlice = 4096;
// Raw events the reader may hand on before the processing catches up.
constexpr std::size_t kMaxPendingRawEvents = 200000;
// An overflow sweep that finds more than this many folders changed, and more
// than this share of them, asks receivers to rescan their watched paths
// instead of one report per folder.
constexpr std::size_t kOverflowRescanCount = 256;
constexpr double kOverflowRescanShare = 0.10;
// Swept folders promoted to a watch per sweep (a watch of a worse-ranked
// folder is given up for each).
constexpr std::size_t kPromotionsPerSweep = 256;

double nowSeconds() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

// The fingerprint to keep for a folder just looked at. File times are
// stamped from the kernel's coarse clock, so a file created in the same tick
// as the look leaves the folder's time unchanged; a time that recent is kept
// as "never seen", and the next sweep looks again whatever the time says.
uint32_t settledFingerprint(const struct stat& st) {
  struct timespec now {};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
  const int64_t nowNs = static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
  const int64_t modifiedNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  constexpr int64_t kRacyWindowNs = 50'000'000;  // several ticks of the coarsest kernel clock
  if (modifiedNs >= nowNs - kRacyWindowNs) return 0;
  return WatchTree::fingerprint(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
}

double monotonicSeconds() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

std::string childPath(const std::string& folder, std::string_view name) {
  std::string path = folder;
  if (path.empty() || path.back() != '/') path.push_back('/');
  path.append(name);
  return path;
}

std::string normalizedPath(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string parentOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return path.size() > 1 ? "/" : "";
  return path.substr(0, slash);
}

bool isFolder(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int64_t readMaxUserWatches() {
  auto text = readRegularFile("/proc/sys/fs/inotify/max_user_watches", 64);
  if (!text) return 8192;
  try {
    return std::stoll(*text);
  } catch (...) {
    return 8192;
  }
}

struct LinuxDirent64 {
  ino64_t d_ino;
  off64_t d_off;
  unsigned short d_reclen;
  unsigned char d_type;
  char d_name[];
};

// The names of the subfolders of an open folder, read with getdents64.
void listSubfolders(int fd, std::vector<std::string>& names) {
  alignas(LinuxDirent64) char buffer[32 * 1024];
  for (;;) {
    long bytes = ::syscall(SYS_getdents64, fd, buffer, sizeof buffer);
    if (bytes <= 0) return;
    for (long at = 0; at < bytes;) {
      auto* entry = reinterpret_cast<LinuxDirent64*>(buffer + at);
      at += entry->d_reclen;
      std::string_view name(entry->d_name);
      if (name == "." || name == "..") continue;
      unsigned char type = entry->d_type;
      if (type == DT_UNKNOWN) {
        struct stat st;
        if (::fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        type = S_ISDIR(st.st_mode) ? DT_DIR : DT_REG;
      }
      if (type == DT_DIR) names.emplace_back(name);
    }
  }
}

uint16_t bitOf(std::size_t slot) { return static_cast<uint16_t>(1u << slot); }

}  // namespace

struct FileEvents::Impl : std::enable_shared_from_this<FileEvents::Impl> {
  struct Watcher {
    std::string identifier;
    std::vector<std::string> paths;  // sorted
    std::shared_ptr<DispatchQueue> queue;
    FileEventHandler handler;
    FileWatchOptions options;
    bool used = false;
    bool active = false;
    FileEventID stoppedAt = 0;
    std::vector<FileEvent> outgoing;  // built during one processing step
  };

  // A path some watcher asked for. `node` is kNone while the folder is
  // missing; then `waitNode` is the nearest existing ancestor, watched to see
  // the next component (`awaitedName`) appear.
  struct Root {
    std::string path;
    uint16_t watchers = 0;
    uint32_t node = WatchTree::kNone;
    uint32_t waitNode = WatchTree::kNone;
    std::string awaitedName;
  };

  // A subtree being armed, breadth first, and what to report when done.
  struct ArmJob {
    std::deque<uint32_t> folders;
    uint16_t bits = 0;                 // watcher bits being armed
    bool reportsChangedSince = false;  // a start: report folders changed since its moment
    std::unordered_map<std::string, uint32_t> known;  // existing nodes below, by "parent/name"
    std::vector<std::pair<FileEvent, uint16_t>> reports;
  };

  std::size_t armedSinceTrim = 0;
  std::map<std::string, uint16_t> writes;  // files written while open, by watcher bits
  bool writeFlushScheduled = false;

  // The first half of a rename, waiting for its second.
  struct Held {
    uint32_t folder;
    std::string name;
    bool isDirectory;
    double since;  // monotonic
  };

  explicit Impl(Options o)
      : options(std::move(o)),
        journal(options.stateDirectory.empty() ? "" : options.stateDirectory + "/file-event-id",
                options.journalBytes) {}

  Options options;
  int inotifyFd = -1;
  int64_t budget = 0;
  std::shared_ptr<DispatchQueue> queue;
  std::mutex readerMutex;  // the reader goes away while processing may still use it
  std::unique_ptr<InotifyReader> reader;
  std::atomic<bool> stopping{false};
  std::atomic<int64_t> statWatched{0}, statSwept{0}, statDelivered{0}, statOverflows{0}, statTreeBytes{0};
  std::atomic<double> statLastSweep{0};
  std::atomic<int64_t> pendingJobs{0};

  // --- on the processing queue ---
  WatchTree tree;
  EventJournal journal;
  std::array<Watcher, kMaxWatchers> watchers;
  std::list<Root> roots;
  std::deque<ArmJob> jobs;
  bool armScheduled = false;
  std::map<uint32_t, Held> held;  // by cookie
  bool holdExpiryScheduled = false;
  int64_t watchedCount = 0;
  int64_t waitingNodes = 0;  // watched only to see a missing root appear; outside the budget
  bool budgetSpent = false;
  bool sweepScheduled = false;
  double lastSweepDuration = 0;
  std::size_t deadNodes = 0;
  // During a sweep: children by parent, so that comparing many folders with
  // the disk costs one pass over the tree, not one per folder.
  std::unordered_multimap<uint32_t, uint32_t>* childIndex = nullptr;

  // ----- reporting -----

  uint16_t usedWatchers() const {
    uint16_t bits = 0;
    for (std::size_t slot = 0; slot < kMaxWatchers; ++slot) {
      if (watchers[slot].used) bits |= bitOf(slot);
    }
    return bits;
  }

  uint16_t writeWatchers() const {
    uint16_t bits = 0;
    for (std::size_t slot = 0; slot < kMaxWatchers; ++slot) {
      if (watchers[slot].used && watchers[slot].options.reportsWritesToOpenFiles) bits |= bitOf(slot);
    }
    return bits;
  }

  void report(std::string path, uint32_t flags, uint16_t bits, std::string movedFrom = {}) {
    bits &= usedWatchers();
    if (bits == 0) return;
    FileEvent event;
    event.id = journal.next();
    event.path = std::move(path);
    event.flags = flags;
    event.movedFrom = std::move(movedFrom);
    const bool isHistoryMark = flags & (kFileEventHistoryDone | kFileEventHistoryIncomplete);
    if (!isHistoryMark) journal.record(event, bits);
    for (std::size_t slot = 0; slot < kMaxWatchers; ++slot) {
      if ((bits & bitOf(slot)) && watchers[slot].active) watchers[slot].outgoing.push_back(event);
    }
  }

  // Hands each watcher what was built for it during this step.
  void deliver() {
    for (auto& watcher : watchers) {
      if (!watcher.active || watcher.outgoing.empty()) continue;
      statDelivered.fetch_add(static_cast<int64_t>(watcher.outgoing.size()), std::memory_order_relaxed);
      watcher.queue->async(
          [handler = watcher.handler, events = std::move(watcher.outgoing)]() mutable { handler(std::move(events)); });
      watcher.outgoing.clear();
    }
    releaseUnreplayableWatchers();
    statWatched = watchedCount;
    statSwept = static_cast<int64_t>(tree.liveCount()) - watchedCount - waitingCount();
    statTreeBytes = static_cast<int64_t>(tree.bytesUsed());
  }

  int64_t waitingCount() const { return waitingNodes; }

  // A stopped watcher keeps its watches so that a restart can replay what it
  // missed; once the journal has dropped part of that, they serve no one.
  void releaseUnreplayableWatchers() {
    for (std::size_t slot = 0; slot < kMaxWatchers; ++slot) {
      Watcher& watcher = watchers[slot];
      if (watcher.used && !watcher.active && !journal.reachesBackTo(watcher.stoppedAt)) release(slot);
    }
  }

  // Which of `bits` want the folder at `path` watched.
  uint16_t accepting(uint16_t bits, const std::string& path) const {
    uint16_t accepted = 0;
    for (std::size_t slot = 0; slot < kMaxWatchers; ++slot) {
      if (!(bits & bitOf(slot)) || !watchers[slot].used) continue;
      const auto& predicate = watchers[slot].options.watchesFolder;
      if (!predicate || predicate(path)) accepted |= bitOf(slot);
    }
    return accepted;
  }

  // ----- watches -----

  // Sets a watch on the node's folder when the budget allows. Returns the
  // node that stands for the folder afterwards (another one when the folder
  // was already known under another node), or kNone when it is gone.
  uint32_t watch(uint32_t node, const std::string& path) {
    if (tree[node].state == WatchTree::State::watched) {
      // A watcher that wants writes to open files joined a folder watched
      // without them: add them to its watch.
      if (tree[node].watchers & writeWatchers()) {
        const bool isRoot = tree[node].parent == WatchTree::kNone;
        ::inotify_add_watch(inotifyFd, path.c_str(), IN_MASK_ADD | IN_MODIFY | (isRoot ? 0 : IN_DONT_FOLLOW));
      }
      return node;
    }
    if (budgetSpent || watchedCount >= budget) {
      budgetSpent = true;
      return node;  // stays swept
    }
    const bool isRoot = tree[node].parent == WatchTree::kNone;
    const uint32_t writes = (tree[node].watchers & writeWatchers()) ? IN_MODIFY : 0;
    int wd = ::inotify_add_watch(inotifyFd, path.c_str(), kFolderMask | writes | (isRoot ? 0 : IN_DONT_FOLLOW));
    if (wd < 0) {
      if (errno == ENOSPC) {
        budgetSpent = true;  // the user's whole allowance is in use elsewhere
        return node;
      }
      if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) {
        killSubtree(node);
        return WatchTree::kNone;
      }
      return node;  // no permission and the like: kept by sweeps
    }
    uint32_t existing = tree.nodeOfWatch(wd);
    if (existing != WatchTree::kNone && existing != node) return merge(node, existing, path);
    tree.setWatch(node, wd);
    tree[node].state = WatchTree::State::watched;
    ++watchedCount;
    return node;
  }

  // `fresh` and `existing` are the same folder (one watch). Keep the
  // existing node; a root reached from above becomes part of that tree.
  uint32_t merge(uint32_t fresh, uint32_t existing, const std::string& path) {
    tree[existing].watchers |= tree[fresh].watchers;
    const uint32_t parent = tree[fresh].parent;
    if (tree[existing].parent == WatchTree::kNone && parent != WatchTree::kNone && tree.nameOf(existing) == path) {
      std::string name(tree.nameOf(fresh));
      tree.move(existing, parent, name);
    }
    tree.kill(fresh);
    ++deadNodes;
    return existing;
  }

  void unwatch(uint32_t node) {
    if (tree[node].state != WatchTree::State::watched) return;
    // The kernel answers with IN_IGNORED, which finds no node any more.
    ::inotify_rm_watch(inotifyFd, tree[node].wd);
    tree.clearWatch(node);
    tree[node].state = WatchTree::State::swept;
    --watchedCount;
    budgetSpent = false;
  }

  std::vector<uint32_t> subtreeOf(uint32_t top) {
    if (!childIndex) return tree.subtree(top);
    std::vector<uint32_t> found{top};
    for (std::size_t k = 0; k < found.size(); ++k) {
      auto [begin, end] = childIndex->equal_range(found[k]);
      for (auto it = begin; it != end; ++it) {
        if (tree.isLive(it->second) && tree[it->second].parent == found[k]) found.push_back(it->second);
      }
    }
    return found;
  }

  void killSubtree(uint32_t top) {
    if (!tree.isLive(top)) return;
    for (uint32_t node : subtreeOf(top)) {
      unwatch(node);
      tree.kill(node);
      ++deadNodes;
      rewaitRootsWaitingOn(node);
    }
  }

  // ----- arming -----

  void startJob(ArmJob job) {
    ++pendingJobs;
    jobs.push_back(std::move(job));
    scheduleArming();
  }

  void scheduleArming() {
    if (armScheduled || jobs.empty()) return;
    armScheduled = true;
    queue->async([self = shared_from_this()] {
      self->armScheduled = false;
      if (self->stopping) return;
      self->armSlice();
      self->deliver();
      self->scheduleArming();
    });
  }

  void armSlice() {
    std::size_t done = 0;
    while (!jobs.empty() && done < kArmSlice) {
      ArmJob& job = jobs.front();
      while (!job.folders.empty() && done < kArmSlice) {
        uint32_t folder = job.folders.front();
        job.folders.pop_front();
        armFolder(job, folder);
        ++done;
      }
      if (!job.folders.empty()) break;
      for (auto& [event, bits] : job.reports) report(std::move(event.path), event.flags, bits, std::move(event.movedFrom));
      jobs.pop_front();
      --pendingJobs;
    }
    // Growth leaves up to half of the tree's vectors unused; once a large
    // subtree is armed, the room goes back (not after every small one: each
    // trim copies the tree).
    armedSinceTrim += done;
    if (jobs.empty() && armedSinceTrim >= 4096) {
      tree.trimStorage();
      armedSinceTrim = 0;
    }
  }

  // Watches one folder, then lists it and queues its subfolders.
  void armFolder(ArmJob& job, uint32_t node) {
    if (!tree.isLive(node)) return;
    std::string path = tree.pathOf(node);
    node = watch(node, path);
    if (node == WatchTree::kNone) return;
    const bool isRoot = tree[node].parent == WatchTree::kNone;
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (isRoot ? 0 : O_NOFOLLOW));
    if (fd < 0) return;
    struct stat st;
    if (::fstat(fd, &st) == 0) noteTime(job, node, st, path);
    std::vector<std::string> names;
    listSubfolders(fd, names);
    ::close(fd);
    const uint16_t bits = tree[node].watchers & job.bits;
    for (const auto& name : names) {
      std::string child = childPath(path, name);
      uint16_t accepted = accepting(bits, child);
      if (!accepted) continue;
      uint32_t existing = WatchTree::kNone;
      if (!job.known.empty()) {
        auto it = job.known.find(std::to_string(node) + "/" + name);
        if (it != job.known.end() && tree.isLive(it->second) && tree[it->second].parent == node) existing = it->second;
      }
      if (existing != WatchTree::kNone) {
        tree[existing].watchers |= accepted;
        job.folders.push_back(existing);
      } else {
        job.folders.push_back(tree.addChild(node, name, accepted));
      }
    }
  }

  // Records the folder's time; for a start, reports the folder to watchers
  // that asked to hear of folders changed since some moment.
  void noteTime(const ArmJob& job, uint32_t node, const struct stat& st, const std::string& path) {
    tree[node].mtime = settledFingerprint(st);
    tree[node].age = WatchTree::ageOf(st.st_mtim.tv_sec, static_cast<int64_t>(nowSeconds()));
    if (!job.reportsChangedSince) return;
    const double modified = static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) * 1e-9;
    uint16_t changed = 0;
    for (std::size_t slot = 0; slot < kMaxWatchers; ++slot) {
      if (!(job.bits & tree[node].watchers & bitOf(slot))) continue;
      double since = watchers[slot].options.reportsFoldersChangedSince;
      if (since > 0 && modified >= since) changed |= bitOf(slot);
    }
    if (changed) report(path, kFileEventFolderChanged | kFileEventIsDirectory, changed);
  }

  // Arms a new folder (created, or moved in) below `parent` and reports it
  // with `flags` once its subtree is watched: to the watchers that want its
  // contents with kFileEventMustScanSubDirs, to the others without.
  void armNewFolder(uint32_t parent, const std::string& name, uint32_t flags, uint16_t reportBits) {
    const std::string path = childPath(tree.pathOf(parent), name);
    const uint16_t accepted = accepting(tree[parent].watchers, path);
    ArmJob job;
    if (accepted) {
      job.bits = accepted;
      job.folders.push_back(tree.addChild(parent, name, accepted));
    }
    FileEvent event;
    event.path = path;
    event.flags = flags | kFileEventMustScanSubDirs;
    job.reports.push_back({event, static_cast<uint16_t>(reportBits & accepted)});
    event.flags = flags;
    job.reports.push_back({event, static_cast<uint16_t>(reportBits & ~accepted)});
    startJob(std::move(job));
  }

  // ----- roots -----

  Root* rootNamed(const std::string& path) {
    for (auto& root : roots) {
      if (root.path == path) return &root;
    }
    return nullptr;
  }

  std::vector<Root*> rootsAtNode(uint32_t node) {
    std::vector<Root*> found;
    if (node == WatchTree::kNone) return found;
    for (auto& root : roots) {
      if (root.node == node) found.push_back(&root);
    }
    return found;
  }

  // The node that stands for `path` inside an existing tree, if any.
  uint32_t nodeForPath(const std::string& path) const {
    for (const auto& root : roots) {
      if (root.node == WatchTree::kNone || !tree.isLive(root.node) || !path.starts_with(root.path)) continue;
      if (path.size() == root.path.size()) return root.node;
      std::size_t at = root.path.size();
      if (root.path != "/" && path[at] != '/') continue;
      uint32_t node = root.node;
      while (node != WatchTree::kNone && at < path.size()) {
        if (path[at] == '/') ++at;
        std::size_t end = path.find('/', at);
        if (end == std::string::npos) end = path.size();
        node = tree.findChild(node, std::string_view(path).substr(at, end - at));
        at = end;
      }
      if (node != WatchTree::kNone) return node;
    }
    return WatchTree::kNone;
  }

  // Keeps `root` current for `bits`: arms it when it exists, waits for it
  // otherwise. With reportAppearance, the root's watchers hear that it
  // appeared once it is armed.
  void attach(Root& root, uint16_t bits, bool reportsChangedSince, bool reportAppearance) {
    root.watchers |= bits;
    if (!isFolder(root.path)) {
      if (root.node == WatchTree::kNone) waitFor(root);
      return;
    }
    if (root.waitNode != WatchTree::kNone) {
      uint32_t waitNode = root.waitNode;
      root.waitNode = WatchTree::kNone;
      dropWaitNodeIfUnused(waitNode);
    }
    if (root.node == WatchTree::kNone || !tree.isLive(root.node)) {
      uint32_t inside = nodeForPath(root.path);
      root.node = inside != WatchTree::kNone ? inside : tree.addRoot(root.path, 0);
    }
    tree[root.node].watchers |= bits;
    ArmJob job;
    job.bits = bits;
    job.reportsChangedSince = reportsChangedSince;
    for (uint32_t node : tree.subtree(root.node)) {
      if (node != root.node) job.known[std::to_string(tree[node].parent) + "/" + std::string(tree.nameOf(node))] = node;
    }
    job.folders.push_back(root.node);
    if (reportAppearance) {
      FileEvent event;
      event.path = root.path;
      event.flags = kFileEventCreated | kFileEventIsDirectory | kFileEventMustScanSubDirs | kFileEventRootChanged;
      job.reports.push_back({event, root.watchers});
    }
    startJob(std::move(job));
  }

  // Watches the nearest existing ancestor of a missing root for the next
  // component to appear.
  void waitFor(Root& root) {
    root.node = WatchTree::kNone;
    std::string missing = root.path;
    std::string ancestor = parentOf(missing);
    while (!ancestor.empty() && !isFolder(ancestor)) {
      missing = ancestor;
      ancestor = parentOf(ancestor);
    }
    if (ancestor.empty()) return;
    root.awaitedName = missing.substr(ancestor == "/" ? 1 : ancestor.size() + 1);
    uint32_t node = nodeForPath(ancestor);
    if (node == WatchTree::kNone || tree[node].state != WatchTree::State::watched) {
      int wd = ::inotify_add_watch(inotifyFd, ancestor.c_str(), kWaitingMask);
      if (wd < 0) return;
      node = tree.nodeOfWatch(wd);
      if (node == WatchTree::kNone) {
        node = tree.addRoot(ancestor, 0);
        tree.setWatch(node, wd);
        tree[node].state = WatchTree::State::waiting;
        ++waitingNodes;
      }
    }
    root.waitNode = node;
    // It may have appeared between the look and the watch.
    if (isFolder(root.path) || isFolder(childPath(ancestor, root.awaitedName))) checkAwaited(node, root.awaitedName);
  }

  // A folder appeared: does a missing root wait for it?
  void checkAwaited(uint32_t folder, const std::string& name) {
    for (auto& root : roots) {
      if (root.node != WatchTree::kNone || root.waitNode != folder || root.awaitedName != name) continue;
      if (isFolder(root.path)) {
        attach(root, root.watchers, false, /*reportAppearance=*/true);
      } else {
        uint32_t waitNode = root.waitNode;
        root.waitNode = WatchTree::kNone;
        waitFor(root);  // one level further down
        dropWaitNodeIfUnused(waitNode);
      }
    }
  }

  void dropWaitNodeIfUnused(uint32_t node) {
    if (!tree.isLive(node) || tree[node].state != WatchTree::State::waiting) return;
    for (const auto& root : roots) {
      if (root.waitNode == node) return;
    }
    ::inotify_rm_watch(inotifyFd, tree[node].wd);
    tree.kill(node);
    --waitingNodes;
    ++deadNodes;
  }

  void rewaitRootsWaitingOn(uint32_t node) {
    for (auto& root : roots) {
      if (root.waitNode == node && root.node == WatchTree::kNone) {
        root.waitNode = WatchTree::kNone;
        waitFor(root);
      }
    }
  }

  // The folder of a root left its path (deleted, moved away): its watchers
  // hear it, folders only it wanted are given up, and it is looked for again.
  void rootLeft(Root& root) {
    uint32_t node = root.node;
    root.node = WatchTree::kNone;
    if (tree.isLive(node)) {
      uint16_t covered = 0;
      for (const auto& other : roots) {
        if (&other != &root && other.node != WatchTree::kNone && tree.isWithin(node, other.node)) {
          covered |= other.watchers;
        }
      }
      dropBits(node, root.watchers & static_cast<uint16_t>(~covered));
    }
    report(root.path, kFileEventRemoved | kFileEventIsDirectory | kFileEventRootChanged, root.watchers);
    attach(root, root.watchers, false, /*reportAppearance=*/true);  // something may already stand there again
  }

  // ----- watchers -----

  int slotOf(const std::string& identifier) const {
    for (std::size_t slot = 0; slot < kMaxWatchers; ++slot) {
      if (watchers[slot].used && watchers[slot].identifier == identifier) return static_cast<int>(slot);
    }
    return -1;
  }

  int freeSlot() {
    for (std::size_t slot = 0; slot < kMaxWatchers; ++slot) {
      if (!watchers[slot].used) return static_cast<int>(slot);
    }
    // Every slot taken: a stopped watcher gives up its history.
    for (std::size_t slot = 0; slot < kMaxWatchers; ++slot) {
      if (!watchers[slot].active) {
        release(slot);
        return static_cast<int>(slot);
      }
    }
    return -1;
  }

  void start(std::vector<std::string> paths, std::string identifier, std::shared_ptr<DispatchQueue> targetQueue,
             std::optional<FileEventID> sinceWhen, FileEventHandler handler, FileWatchOptions watchOptions) {
    for (auto& path : paths) path = normalizedPath(path);
    paths.erase(std::remove_if(paths.begin(), paths.end(), [](const std::string& p) { return !p.starts_with("/"); }),
                paths.end());
    std::sort(paths.begin(), paths.end());
    paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
    int slot = slotOf(identifier);
    const bool resuming = slot >= 0;
    if (!resuming) slot = freeSlot();
    if (slot < 0) return;
    Watcher& watcher = watchers[static_cast<std::size_t>(slot)];
    const uint16_t bit = bitOf(static_cast<std::size_t>(slot));
    std::vector<FileEvent> replayed;
    const bool replayable = sinceWhen && resuming && journal.replay(*sinceWhen, bit, replayed);
    std::vector<std::string> previous = resuming ? watcher.paths : std::vector<std::string>{};
    for (const auto& old : previous) {
      if (!std::binary_search(paths.begin(), paths.end(), old)) detach(old, bit);
    }
    watcher.used = true;
    watcher.active = true;
    watcher.identifier = std::move(identifier);
    watcher.paths = paths;
    watcher.queue = std::move(targetQueue);
    watcher.handler = std::move(handler);
    watcher.options = std::move(watchOptions);
    // What it missed goes out before any live event.
    watcher.outgoing = std::move(replayed);
    if (sinceWhen) report("", replayable ? kFileEventHistoryDone : kFileEventHistoryIncomplete, bit);
    for (const auto& path : paths) {
      if (std::binary_search(previous.begin(), previous.end(), path)) continue;  // kept current all along
      Root* root = rootNamed(path);
      if (!root) {
        Root fresh;
        fresh.path = path;
        roots.push_back(std::move(fresh));
        root = &roots.back();
      }
      attach(*root, bit, /*reportsChangedSince=*/true, /*reportAppearance=*/false);
    }
    deliver();
  }

  // The watcher of `bit` no longer wants `path`.
  void detach(const std::string& path, uint16_t bit) {
    for (auto it = roots.begin(); it != roots.end(); ++it) {
      if (it->path != path) continue;
      it->watchers &= static_cast<uint16_t>(~bit);
      if (it->node != WatchTree::kNone) dropBits(it->node, bit);
      if (it->watchers == 0) {
        uint32_t waitNode = it->waitNode;
        roots.erase(it);
        dropWaitNodeIfUnused(waitNode);
      }
      return;
    }
  }

  // Clears watcher bits at and below a node; folders no one wants any more
  // lose their node, unless a root still stands on them.
  void dropBits(uint32_t top, uint16_t bits) {
    if (!bits || !tree.isLive(top)) return;
    for (uint32_t node : tree.subtree(top)) {
      tree[node].watchers &= static_cast<uint16_t>(~bits);
      if (tree[node].watchers != 0) continue;
      bool needed = false;
      for (const auto& root : roots) needed |= root.node == node && root.watchers != 0;
      if (needed) continue;
      unwatch(node);
      tree.kill(node);
      ++deadNodes;
    }
  }

  void release(std::size_t slot) {
    Watcher& watcher = watchers[slot];
    for (const auto& path : watcher.paths) detach(path, bitOf(slot));
    watcher = Watcher{};
  }

  void stop(const std::string& identifier, bool keepsHistory) {
    int slot = slotOf(identifier);
    if (slot < 0) return;
    deliver();  // what was built before the stop still goes out
    if (!keepsHistory) {
      release(static_cast<std::size_t>(slot));
      return;
    }
    Watcher& watcher = watchers[static_cast<std::size_t>(slot)];
    watcher.active = false;
    watcher.stoppedAt = journal.current();
    watcher.handler = nullptr;
    watcher.queue = nullptr;
  }

  // ----- raw events -----

  void process(RawBatch batch) {
    bool overflowed = false;
    for (const auto& raw : batch) {
      if (raw.wd == -1) {
        overflowed |= (raw.mask & IN_Q_OVERFLOW) != 0;
        continue;
      }
      handle(raw);
    }
    if (overflowed) recoverFromOverflow();
    if (!held.empty()) scheduleHoldExpiry();
    deliver();
  }

  void handle(const RawEvent& raw) {
    uint32_t node = tree.nodeOfWatch(raw.wd);
    if (node == WatchTree::kNone) return;  // a watch given up already
    if (tree[node].state == WatchTree::State::waiting) {
      if ((raw.mask & (IN_CREATE | IN_MOVED_TO)) && (raw.mask & IN_ISDIR)) checkAwaited(node, raw.name);
      if (raw.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) {
        tree.clearWatch(node);
        tree.kill(node);
        --waitingNodes;
        ++deadNodes;
        rewaitRootsWaitingOn(node);
      }
      return;
    }
    if (raw.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT)) {
      selfGone(node, raw.mask);
      return;
    }
    if (raw.name.empty()) return;  // attributes of the folder itself
    const bool isDirectory = raw.mask & IN_ISDIR;
    if ((raw.mask & (IN_CREATE | IN_MOVED_TO)) && isDirectory) checkAwaited(node, raw.name);
    if (!(raw.mask & IN_MOVED_TO)) flushHeldFor(node, raw.name);
    if (raw.mask & IN_MOVED_FROM) {
      held[raw.cookie] = Held{node, raw.name, isDirectory, monotonicSeconds()};
      return;
    }
    if (raw.mask & IN_MOVED_TO) {
      auto pair = held.find(raw.cookie);
      if (pair == held.end()) {
        appeared(node, raw.name, isDirectory);
        return;
      }
      Held from = std::move(pair->second);
      held.erase(pair);
      moved(from, node, raw.name);
      return;
    }
    const uint16_t bits = tree[node].watchers;
    const uint32_t directoryFlag = isDirectory ? uint32_t{kFileEventIsDirectory} : 0u;
    if (raw.mask & IN_CREATE) {
      appeared(node, raw.name, isDirectory);
    } else if (raw.mask & IN_DELETE) {
      report(childPath(tree.pathOf(node), raw.name), kFileEventRemoved | directoryFlag, bits);
    } else if (raw.mask & (IN_CLOSE_WRITE | IN_ATTRIB)) {
      report(childPath(tree.pathOf(node), raw.name), kFileEventModified | directoryFlag, bits);
    } else if ((raw.mask & IN_MODIFY) && !isDirectory) {
      noteWrite(childPath(tree.pathOf(node), raw.name), bits & writeWatchers());
    }
  }

  // Writes to open files: gathered per file and reported once the hold ends,
  // so a log written a line at a time costs one event per hold, not one per
  // write.
  void noteWrite(std::string path, uint16_t bits) {
    if (bits == 0) return;
    writes[std::move(path)] |= bits;
    if (writeFlushScheduled) return;
    writeFlushScheduled = true;
    std::weak_ptr<Impl> weak = shared_from_this();
    queue->asyncAfter(DispatchQueue::Seconds(options.writeHold), [weak] {
      auto self = weak.lock();
      if (!self || self->stopping) return;
      self->writeFlushScheduled = false;
      for (auto& [path, bits] : self->writes) self->report(path, kFileEventModified, bits);
      self->writes.clear();
      self->deliver();
    });
  }

  // An item created in, or moved into, a watched folder from outside.
  void appeared(uint32_t folder, const std::string& name, bool isDirectory) {
    if (!isDirectory) {
      report(childPath(tree.pathOf(folder), name), kFileEventCreated, tree[folder].watchers);
      return;
    }
    armNewFolder(folder, name, kFileEventCreated | kFileEventIsDirectory, tree[folder].watchers);
  }

  // A watched folder itself was deleted or moved, or its watch went away.
  void selfGone(uint32_t node, uint32_t mask) {
    auto atRoot = rootsAtNode(node);
    if (!atRoot.empty() && (mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT))) {
      for (Root* root : atRoot) rootLeft(*root);
      return;
    }
    // Below a root, the parent's events report the item; the node goes when
    // the kernel drops its watch.
    if (mask & IN_IGNORED) {
      if (tree[node].state == WatchTree::State::watched) --watchedCount;
      budgetSpent = false;
      for (Root* root : atRoot) rootLeft(*root);
      tree.kill(node);
      ++deadNodes;
      rewaitRootsWaitingOn(node);
    }
  }

  // Both halves of a rename inside the watched folders.
  void moved(const Held& from, uint32_t toFolder, const std::string& toName) {
    if (!tree.isLive(from.folder)) {
      appeared(toFolder, toName, from.isDirectory);
      return;
    }
    const std::string oldPath = childPath(tree.pathOf(from.folder), from.name);
    const std::string newPath = childPath(tree.pathOf(toFolder), toName);
    const uint16_t oldBits = tree[from.folder].watchers;
    const uint16_t newBits = tree[toFolder].watchers;
    if (!from.isDirectory) {
      report(newPath, kFileEventRenamed, oldBits & newBits, oldPath);
      report(oldPath, kFileEventRemoved, oldBits & ~newBits);
      report(newPath, kFileEventCreated, newBits & ~oldBits);
      return;
    }
    const uint32_t dirFlag = kFileEventIsDirectory;
    uint32_t child = tree.findChild(from.folder, from.name);
    const uint16_t accepted = accepting(newBits, newPath);
    if (child != WatchTree::kNone && tree[child].watchers == accepted && accepted == (oldBits & newBits)) {
      tree.move(child, toFolder, toName);
      for (Root* root : rootsAtNode(child)) rootLeft(*root);
      report(newPath, kFileEventRenamed | dirFlag, oldBits & newBits, oldPath);
      return;
    }
    // The watchers differ on the new place: arm it afresh.
    for (Root* root : rootsAtNode(child)) rootLeft(*root);
    if (child != WatchTree::kNone) killSubtree(child);
    report(oldPath, kFileEventRemoved | dirFlag, oldBits);
    armNewFolder(toFolder, toName, kFileEventCreated | dirFlag, newBits);
  }

  // A later event about the same name settles a waiting first half: the item
  // left before that event happened.
  void flushHeldFor(uint32_t folder, const std::string& name) {
    for (auto it = held.begin(); it != held.end();) {
      if (it->second.folder == folder && it->second.name == name) {
        movedOut(it->second);
        it = held.erase(it);
      } else {
        ++it;
      }
    }
  }

  void movedOut(const Held& from) {
    if (!tree.isLive(from.folder)) return;
    const std::string path = childPath(tree.pathOf(from.folder), from.name);
    report(path, kFileEventRemoved | (from.isDirectory ? uint32_t{kFileEventIsDirectory} : 0u), tree[from.folder].watchers);
    if (!from.isDirectory) return;
    uint32_t child = tree.findChild(from.folder, from.name);
    if (child == WatchTree::kNone) return;
    for (Root* root : rootsAtNode(child)) rootLeft(*root);
    killSubtree(child);
  }

  void scheduleHoldExpiry() {
    if (holdExpiryScheduled) return;
    holdExpiryScheduled = true;
    std::weak_ptr<Impl> weak = shared_from_this();
    queue->asyncAfter(DispatchQueue::Seconds(options.moveOutHold), [weak] {
      auto self = weak.lock();
      if (!self || self->stopping) return;
      self->holdExpiryScheduled = false;
      // A second half may still sit in the kernel's queue: have it read and
      // queued ahead of the expiry.
      {
        std::lock_guard lock(self->readerMutex);
        if (self->reader) self->reader->flush();
      }
      self->queue->async([weak] {
        auto self = weak.lock();
        if (!self || self->stopping) return;
        self->expireHolds();
      });
    });
  }

  void expireHolds() {
    const double now = monotonicSeconds();
    for (auto it = held.begin(); it != held.end();) {
      if (now - it->second.since >= options.moveOutHold) {
        movedOut(it->second);
        it = held.erase(it);
      } else {
        ++it;
      }
    }
    if (!held.empty()) scheduleHoldExpiry();
    deliver();
  }

  // ----- sweeps -----

  // Compares a folder's subfolders with the tree: new ones are armed,
  // vanished ones dropped; then the folder is reported changed.
  void reconcileFolder(uint32_t node, const std::string& path, std::vector<ArmJob>& newJobs) {
    const bool isRoot = tree[node].parent == WatchTree::kNone;
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (isRoot ? 0 : O_NOFOLLOW));
    if (fd < 0) return;
    std::vector<std::string> names;
    listSubfolders(fd, names);
    ::close(fd);
    std::sort(names.begin(), names.end());
    std::vector<uint32_t> children;
    if (childIndex) {
      auto [begin, end] = childIndex->equal_range(node);
      for (auto it = begin; it != end; ++it) {
        if (tree.isLive(it->second) && tree[it->second].parent == node) children.push_back(it->second);
      }
    } else {
      for (uint32_t id = 0; id < tree.capacity(); ++id) {
        if (tree.isLive(id) && tree[id].parent == node) children.push_back(id);
      }
    }
    std::vector<std::string> known;
    for (uint32_t child : children) {
      std::string name(tree.nameOf(child));
      if (std::binary_search(names.begin(), names.end(), name)) {
        known.push_back(std::move(name));
      } else {
        for (Root* root : rootsAtNode(child)) rootLeft(*root);
        killSubtree(child);
      }
    }
    std::sort(known.begin(), known.end());
    ArmJob job;
    job.bits = tree[node].watchers;
    for (const auto& name : names) {
      if (std::binary_search(known.begin(), known.end(), name)) continue;
      uint16_t accepted = accepting(job.bits, childPath(path, name));
      if (accepted) job.folders.push_back(tree.addChild(node, name, accepted));
    }
    FileEvent event;
    event.path = path;
    event.flags = kFileEventFolderChanged | kFileEventIsDirectory;
    job.reports.push_back({event, tree[node].watchers});
    newJobs.push_back(std::move(job));
  }

  // Stats the folders; changed ones are reconciled (their jobs returned in
  // `newJobs`) and listed in `changed`.
  void sweep(const std::vector<uint32_t>& nodes, std::vector<uint32_t>& changed, std::vector<ArmJob>& newJobs) {
    const auto now = static_cast<int64_t>(nowSeconds());
    std::unordered_multimap<uint32_t, uint32_t> index;
    index.reserve(tree.liveCount());
    for (uint32_t id = 0; id < tree.capacity(); ++id) {
      if (tree.isLive(id) && tree[id].parent != WatchTree::kNone) index.emplace(tree[id].parent, id);
    }
    childIndex = &index;
    for (uint32_t node : nodes) {
      if (!tree.isLive(node)) continue;
      std::string path = tree.pathOf(node);
      const bool isRoot = tree[node].parent == WatchTree::kNone;
      struct stat st;
      int statResult = isRoot ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st);
      if (statResult != 0 || !S_ISDIR(st.st_mode)) {
        for (Root* root : rootsAtNode(node)) rootLeft(*root);
        killSubtree(node);
        continue;
      }
      uint32_t print = WatchTree::fingerprint(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
      if (print == tree[node].mtime) continue;
      tree[node].mtime = settledFingerprint(st);
      tree[node].age = WatchTree::ageOf(st.st_mtim.tv_sec, now);
      reconcileFolder(node, path, newJobs);
      changed.push_back(node);
    }
    childIndex = nullptr;
  }

  void scheduleSweep() {
    if (sweepScheduled) return;
    sweepScheduled = true;
    // Sweeps take at most about 2% of a core: one that took 50 ms waits at
    // least 2.5 s before the next.
    const double interval = std::max(options.sweepInterval, lastSweepDuration * 50);
    std::weak_ptr<Impl> weak = shared_from_this();
    queue->asyncAfter(DispatchQueue::Seconds(interval), [weak] {
      auto self = weak.lock();
      if (!self || self->stopping) return;
      self->sweepScheduled = false;
      self->periodicSweep();
      self->deliver();
      self->scheduleSweep();
    });
  }

  void periodicSweep() {
    const double started = monotonicSeconds();
    std::vector<uint32_t> swept;
    for (uint32_t id = 0; id < tree.capacity(); ++id) {
      if (tree.isLive(id) && tree[id].state == WatchTree::State::swept) swept.push_back(id);
    }
    if (!swept.empty()) {
      std::vector<uint32_t> changed;
      std::vector<ArmJob> newJobs;
      sweep(swept, changed, newJobs);
      for (auto& job : newJobs) startJob(std::move(job));
      if (!changed.empty()) promote(std::move(changed));
    }
    if (deadNodes > 1024 && deadNodes * 4 > tree.capacity()) {
      tree.collectGarbage();
      deadNodes = 0;
    }
    lastSweepDuration = monotonicSeconds() - started;
    statLastSweep = lastSweepDuration;
  }

  // Lower is more deserving of a watch: shallow folders and folders that
  // changed lately.
  uint32_t rank(uint32_t node) const { return tree.depthOf(node) + tree[node].age; }

  // Gives watches to swept folders that changed, taking them from watched
  // folders that rank worse.
  void promote(std::vector<uint32_t> candidates) {
    if (candidates.size() > kPromotionsPerSweep) candidates.resize(kPromotionsPerSweep);
    std::vector<std::pair<uint32_t, uint32_t>> watched;  // rank, node; worst first
    if (budgetSpent || watchedCount >= budget) {
      for (uint32_t id = 0; id < tree.capacity(); ++id) {
        if (tree.isLive(id) && tree[id].state == WatchTree::State::watched && tree[id].parent != WatchTree::kNone) {
          watched.emplace_back(rank(id), id);
        }
      }
      std::sort(watched.begin(), watched.end(), std::greater<>());
    }
    std::size_t next = 0;
    for (uint32_t node : candidates) {
      if (!tree.isLive(node) || tree[node].state != WatchTree::State::swept) continue;
      if (budgetSpent || watchedCount >= budget) {
        if (next >= watched.size() || watched[next].first <= rank(node)) break;
        unwatch(watched[next++].second);
      }
      watch(node, tree.pathOf(node));
    }
  }

  void recoverFromOverflow() {
    ++statOverflows;
    // Second halves of renames may be lost; the sweep sees the outcome.
    held.clear();
    const double started = monotonicSeconds();
    std::vector<uint32_t> all;
    for (uint32_t id = 0; id < tree.capacity(); ++id) {
      if (tree.isLive(id) && tree[id].state != WatchTree::State::waiting) all.push_back(id);
    }
    std::vector<uint32_t> changed;
    std::vector<ArmJob> newJobs;
    sweep(all, changed, newJobs);
    if (changed.size() > kOverflowRescanCount &&
        static_cast<double>(changed.size()) > kOverflowRescanShare * static_cast<double>(all.size())) {
      // Cheaper for receivers to walk their paths again than to compare
      // so many folders one report at a time.
      for (auto& job : newJobs) job.reports.clear();
      for (auto& root : roots) {
        if (root.node != WatchTree::kNone) {
          FileEvent event;
          event.path = root.path;
          event.flags = kFileEventMustScanSubDirs | kFileEventIsDirectory;
          ArmJob job;
          job.reports.push_back({event, root.watchers});
          newJobs.push_back(std::move(job));
        }
      }
    }
    for (auto& job : newJobs) startJob(std::move(job));
    // Missing roots may have appeared unseen.
    for (auto& root : roots) {
      if (root.node == WatchTree::kNone) attach(root, root.watchers, false, /*reportAppearance=*/true);
    }
    statLastSweep = monotonicSeconds() - started;
  }
};

FileEvents& FileEvents::shared() {
  static auto* events = [] {
    Options options;
    options.stateDirectory = xdgStateHome() + "/quorvifind";
    return new FileEvents(options);
  }();
  return *events;
}

FileEvents::FileEvents(Options options) : impl_(std::make_shared<Impl>(std::move(options))) {
  Impl& impl = *impl_;
  impl.budget = impl.options.watchBudget ? *impl.options.watchBudget : readMaxUserWatches() / 2;
  impl.inotifyFd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  impl.queue = DispatchQueue::makeSerial("com.quorvi.fsevents", QualityOfService::background);
  if (impl.inotifyFd < 0) return;
  std::weak_ptr<Impl> weak = impl_;
  impl.reader = std::make_unique<InotifyReader>(
      impl.inotifyFd,
      [weak](RawBatch batch) {
        auto self = weak.lock();
        if (!self) return;
        self->queue->async([self, batch = std::move(batch)]() mutable {
          const std::size_t count = batch.size();
          if (!self->stopping) self->process(std::move(batch));
          std::lock_guard lock(self->readerMutex);
          if (self->reader) self->reader->handled(count);
        });
      },
      kMaxPendingRawEvents);
}

FileEvents::~FileEvents() {
  impl_->stopping = true;
  // The reader first, so that nothing new arrives; then let queued work see
  // `stopping` and drain. Delayed work holds the state weakly.
  std::unique_ptr<InotifyReader> reader;
  {
    std::lock_guard lock(impl_->readerMutex);
    reader = std::move(impl_->reader);
  }
  reader.reset();
  impl_->queue->sync([] {});
  if (impl_->inotifyFd >= 0) ::close(impl_->inotifyFd);
  impl_->inotifyFd = -1;
}

bool FileEvents::startWatching(const std::vector<std::string>& paths, const std::string& identifier,
                               std::shared_ptr<DispatchQueue> queue, std::optional<FileEventID> sinceWhen,
                               FileEventHandler handler, FileWatchOptions options) {
  if (impl_->inotifyFd < 0 || !queue || !handler) return false;
  impl_->queue->async([self = impl_, paths, identifier, queue = std::move(queue), sinceWhen,
                       handler = std::move(handler), options = std::move(options)]() mutable {
    if (self->stopping) return;
    self->start(std::move(paths), std::move(identifier), std::move(queue), sinceWhen, std::move(handler),
                std::move(options));
    self->scheduleSweep();
  });
  return true;
}

void FileEvents::stopWatching(const std::string& identifier, bool keepsHistory) {
  impl_->queue->async([self = impl_, identifier, keepsHistory] {
    if (!self->stopping) self->stop(identifier, keepsHistory);
  });
}

FileEventID FileEvents::currentEventID() const { return impl_->journal.current(); }

FileEventsStatistics FileEvents::statistics() const {
  FileEventsStatistics statistics;
  statistics.watchedFolders = impl_->statWatched.load();
  statistics.sweptFolders = std::max<int64_t>(0, impl_->statSwept.load());
  statistics.watchBudget = impl_->budget;
  statistics.eventsDelivered = impl_->statDelivered.load();
  statistics.overflows = impl_->statOverflows.load();
  statistics.lastSweepSeconds = impl_->statLastSweep.load();
  statistics.bytesOfWatchTree = impl_->statTreeBytes.load();
  return statistics;
}

void FileEvents::waitUntilIdle() const {
  {
    std::lock_guard lock(impl_->readerMutex);
    if (impl_->reader) impl_->reader->flush();
  }
  // Arming goes on in slices; wait until no job is left.
  for (;;) {
    impl_->queue->sync([] {});
    if (impl_->pendingJobs.load() == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void FileEvents::injectOverflow() {
  impl_->queue->async([self = impl_] {
    if (self->stopping) return;
    RawBatch batch;
    batch.push_back(RawEvent{-1, IN_Q_OVERFLOW, 0, {}});
    self->process(std::move(batch));
  });
}

}  // namespace quorvi

// FileEvents: the process's one watcher of the file system. The file index,
// the app index, the contacts cache and the content index each start a
// watcher over their paths under an identifier of their own and receive
// batches of events on a queue they choose.
//
// Event ids are 64-bit, increase across the life of the user account (the
// last id given out is kept in the service's state folder, so a restart
// continues after it) and order every event of every watcher. The events
// themselves are kept in an in-process journal, so a watcher started with a
// "since when" id first receives what happened after that id (a machine that
// slept, a watcher stopped and started again), then live events.
//
// What a receiver must handle:
//  - paths are absolute and begin with one of the watcher's paths as given;
//    an event names one item (file, folder or link);
//  - a rename inside the watched paths is one event, flagged
//    kFileEventRenamed, with the new path in `path` and the old one in
//    `movedFrom`; a folder's rename stands for its whole subtree;
//  - an item moved out of the watched paths is reported as removed (after a
//    short hold, because the two halves of a rename may come apart); an item
//    moved in from outside is reported as created;
//  - a folder that appears (created, or moved in from outside) is reported
//    with kFileEventMustScanSubDirs once watches cover its subtree: the
//    receiver walks it, and every change after the watch was set arrives as
//    an event too (duplicates are possible, misses are not);
//  - kFileEventFolderChanged on a known folder: its entries may have changed
//    in ways no event reported (a folder kept by sweeps whose time changed, a
//    queue overflow, a folder that changed between the receiver's own walk
//    and its watch); compare its entries with the disk, and walk whole any
//    subfolder that is new there;
//  - kFileEventMustScanSubDirs on a known folder: the same for its whole
//    subtree (a watched path that reappeared, an overflow that a sweep could
//    not resolve);
//  - kFileEventHistoryIncomplete (path empty) means the journal did not reach
//    back to the since-when id (or the service restarted since): reconcile
//    everything watched; kFileEventHistoryDone ends a replay.
//  - a watched path that does not exist (yet) is waited for: when it
//    appears it is reported with kFileEventCreated | kFileEventMustScanSubDirs;
//    when it goes away, with kFileEventRemoved | kFileEventRootChanged.
//
// Watches: inotify watches are a per-user resource shared with editors, file
// managers and sync clients. The service takes at most a budget of them
// (half of fs.inotify.max_user_watches unless told otherwise); folders beyond
// the budget are kept current by periodic modification-time sweeps (which see
// entries added, removed and renamed, not files rewritten in place).
//
// Symbolic links are never followed below a watched path (a watched path that
// is itself a link is followed).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/dispatch.h"

namespace quorvi {

using FileEventID = uint64_t;

// What happened to the item; a bit set.
enum FileEventFlag : uint32_t {
  kFileEventCreated = 1u << 0,
  kFileEventRemoved = 1u << 1,
  kFileEventModified = 1u << 2,  // content or attributes changed
  kFileEventRenamed = 1u << 3,   // see movedFrom
  kFileEventIsDirectory = 1u << 4,
  kFileEventIsSymlink = 1u << 5,
  kFileEventMustScanSubDirs = 1u << 6,
  kFileEventRootChanged = 1u << 7,  // a watched path itself appeared, was removed or moved
  kFileEventHistoryDone = 1u << 8,
  kFileEventHistoryIncomplete = 1u << 9,
  kFileEventFolderChanged = 1u << 10,
};

struct FileEvent {
  FileEventID id = 0;
  std::string path;
  uint32_t flags = 0;
  std::string movedFrom;  // the old path of a rename inside the watched paths

  bool has(FileEventFlag flag) const { return (flags & flag) != 0; }
};

// Called on the watcher's queue with events in id order.
using FileEventHandler = std::function<void(std::vector<FileEvent> events)>;

// How one watcher wants its paths watched.
struct FileWatchOptions {
  // Whether to watch (and report) inside a folder found below a watched
  // path; null watches every folder. Called on the service's own thread with
  // the folder's path; must be quick and thread-safe. A folder it refuses is
  // still reported itself, its contents are not.
  std::function<bool(std::string_view folderPath)> watchesFolder;
  // Folders that this start arms (not those already watched for this
  // watcher) whose modification time is at or after this (seconds since
  // 1970) when their watch is set are reported with kFileEventFolderChanged,
  // so that a receiver that walked the folders before watching them learns
  // which changed in between. 0: none.
  double reportsFoldersChangedSince = 0;
  // Whether writes to files that stay open (a database's write-ahead log,
  // a log file) are reported too, as kFileEventModified, at most once per
  // file every `writeHold` seconds. Without it a file is reported modified
  // when a writer closes it. The clock of reportsFoldersChangedSince is the
  // one file times are stamped with (CLOCK_REALTIME_COARSE), which may lag
  // the precise wall clock by a tick.
  bool reportsWritesToOpenFiles = false;
};

// Counts for the performance snapshot.
struct FileEventsStatistics {
  int64_t watchedFolders = 0;   // folders with an inotify watch
  int64_t sweptFolders = 0;     // folders kept current by sweeps instead
  int64_t watchBudget = 0;
  int64_t eventsDelivered = 0;
  int64_t overflows = 0;
  double lastSweepSeconds = 0;  // duration of the last sweep
  int64_t bytesOfWatchTree = 0; // memory held for the watched folders
};

class FileEvents {
 public:
  struct Options {
    std::string stateDirectory;           // empty: $XDG_STATE_HOME/quorvifind
    std::optional<int64_t> watchBudget;   // empty: half of max_user_watches
    double moveOutHold = 0.05;            // seconds an unmatched move-out waits
    double writeHold = 0.1;               // seconds writes to one open file are gathered
    double sweepInterval = 2.0;           // seconds between sweeps of unwatched folders
    std::size_t journalBytes = 8u << 20;  // events kept for replay, in bytes
  };

  // The process-wide service (standard options), started on first use.
  static FileEvents& shared();
  explicit FileEvents(Options options);
  ~FileEvents();
  FileEvents(const FileEvents&) = delete;
  FileEvents& operator=(const FileEvents&) = delete;

  // Starts watching `paths` (folders) under `identifier`, replacing a watcher
  // of the same identifier. With sinceWhen, events after that id are replayed
  // first (or kFileEventHistoryIncomplete when the journal cannot). Watches
  // are set on the service's own thread: this returns at once, and events
  // begin once the watches are in place. Returns false only when the service
  // cannot watch at all (no inotify).
  bool startWatching(const std::vector<std::string>& paths, const std::string& identifier,
                     std::shared_ptr<DispatchQueue> queue, std::optional<FileEventID> sinceWhen,
                     FileEventHandler handler, FileWatchOptions options = {});
  // Stops delivery to the watcher (batches already handed to its queue
  // still run there). With keepsHistory its watches stay set
  // and its events stay in the journal for as long as the journal reaches
  // back to the stop, so that a start with a since-when id replays what
  // happened meanwhile; without, its watches are given up at once.
  void stopWatching(const std::string& identifier, bool keepsHistory = true);

  // The id of the newest event given out (what a sleeping watcher resumes from).
  FileEventID currentEventID() const;
  FileEventsStatistics statistics() const;
  // Blocks until the watches asked for so far are in place and the events
  // read so far are handed on (tools and tests).
  void waitUntilIdle() const;
  // Behaves as if the kernel's event queue had overflowed (tests).
  void injectOverflow();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with work still queued or delayed
};

}  // namespace quorvi

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
//  - paths are absolute; an event names one item (file, folder or link);
//  - a rename inside the watched paths is one event, flagged kFileEventRenamed,
//    with the new path in `path` and the old one in `movedFrom`; a folder's
//    rename stands for its whole subtree;
//  - an item moved out of the watched paths is reported as removed (after a
//    short hold, because the two halves of a rename may come apart);
//  - a folder that appears (created, or moved in from outside) is reported
//    once with kFileEventMustScanSubDirs after watches cover its subtree: the
//    receiver walks it, and every change after the watch was set arrives as
//    an event too (duplicates are possible, misses are not);
//  - kFileEventMustScanSubDirs on a known folder (a queue overflow, a folder
//    kept by sweeps whose time changed) means: the folder's subtree may have
//    changed in ways no event reported; compare it with the disk;
//  - kFileEventHistoryIncomplete (path empty) means the journal did not reach
//    back to the since-when id (or the service restarted since): reconcile
//    everything watched; kFileEventHistoryDone ends a replay.
//
// Watches: inotify watches are a per-user resource shared with editors, file
// managers and sync clients. The service takes at most a budget of them
// (half of fs.inotify.max_user_watches unless told otherwise); folders beyond
// the budget are kept current by periodic modification-time sweeps.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
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
  kFileEventRootChanged = 1u << 7,  // a watched path itself was removed or moved
  kFileEventHistoryDone = 1u << 8,
  kFileEventHistoryIncomplete = 1u << 9,
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

// Counts for the performance snapshot.
struct FileEventsStatistics {
  int64_t watchedFolders = 0;   // folders with an inotify watch
  int64_t sweptFolders = 0;     // folders kept current by sweeps instead
  int64_t watchBudget = 0;
  int64_t eventsDelivered = 0;
  int64_t overflows = 0;
  double lastSweepSeconds = 0;  // duration of the last sweep
};

class FileEvents {
 public:
  struct Options {
    std::string stateDirectory;           // empty: $XDG_STATE_HOME/quorvifind
    std::optional<int64_t> watchBudget;   // empty: half of max_user_watches
    double moveOutHold = 0.05;            // seconds an unmatched move-out waits
    double sweepInterval = 2.0;           // seconds between sweeps of unwatched folders
    std::size_t journalCapacity = 100000; // events kept for replay
  };

  // The process-wide service (standard options), started on first use.
  static FileEvents& shared();
  explicit FileEvents(Options options);
  ~FileEvents();
  FileEvents(const FileEvents&) = delete;
  FileEvents& operator=(const FileEvents&) = delete;

  // Starts watching `paths` (folders) under `identifier`, replacing a watcher
  // of the same identifier. With sinceWhen, events after that id are replayed
  // first (or kFileEventHistoryIncomplete when the journal cannot). Returns
  // false when no path could be watched.
  bool startWatching(const std::vector<std::string>& paths, const std::string& identifier,
                     std::shared_ptr<DispatchQueue> queue, std::optional<FileEventID> sinceWhen,
                     FileEventHandler handler);
  void stopWatching(const std::string& identifier);

  // The id of the newest event given out (what a sleeping watcher resumes from).
  FileEventID currentEventID() const;
  FileEventsStatistics statistics() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace quorvi

// AppIndexer: the one app index of the process -- the launchable items a
// launcher offers by name (installed applications, settings panels and
// extensions, device emulators), kept current between scans from file
// events.
//
// State: not ready (no scan finished yet) -> indexing -> ready. A scan
// replaces the list as a whole; afterwards, file events under the watched
// folders (the applications folders of the desktop entries, the caller's
// scopes, the fixed locations that exist) edit it:
//  - an added, changed or moved-in path is collected and, after the add
//    throttler's delay, indexed in one batch: a desktop file (or folder of
//    them) refreshes the shared desktop catalog, whose entries then replace
//    the list's desktop entries (precedence and Hidden entries resolved as
//    the desktop does); a bundle is read again, added or replaced, or
//    dropped when it is gone; a new folder is searched for bundles;
//  - a removal, or the old location of a rename, asks for the remove batch:
//    after the remove throttler's delay, entries whose file or folder no
//    longer exists go, and the catalog is refreshed.
// Both throttlers wait 1.0 s after the last event of a burst (policy
// "always"), on "com.quorvi.fsappevent.operation"; events arrive on
// "com.quorvi.fsappevent". Events before the first scan has finished are
// ignored. Scans run on the operation queue too, so batches and scans never
// overlap.
//
// Notifications: after each scan, and after a batch that changed the list,
// "com.quorvi.app.index.didUpdate" then "com.quorvi.appIndexerStateDidChange"
// are posted, once each.
//
// Readers take the list (entries and their JSON bytes, made once per
// change) as an immutable snapshot and never wait for a scan.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "apps/app_entry.h"
#include "apps/app_environment.h"
#include "apps/desktop_catalog.h"
#include "apps/last_used.h"
#include "apps/settings_extensions.h"
#include "apps/unfairlock_app_array.h"
#include "common/dispatch.h"
#include "common/throttler.h"
#include "common/unfair_lock.h"
#include "fsevents/file_events.h"

namespace quorvi {

class AppIndexer {
 public:
  using Entry = AppEntry;
  using Category = AppCategory;
  // Called on the operation queue with the list the scan published.
  using FinishHandler = std::function<void(const AppListRef& list)>;

  struct Options {
    AppEnvironment environment;
    DesktopCatalog* catalog = nullptr;     // nullptr: a catalog of its own over the environment's folders
    FileEvents* fileEvents = nullptr;      // nullptr: FileEvents::shared()
    bool logsToStandardOutput = false;
    double throttleDelaySeconds = 1.0;
    // False: no subscription is made (events come only through
    // handleFileEvents; tests).
    bool watchesFileEvents = true;
  };

  // The process-wide index (standard environment, the shared catalog).
  static AppIndexer& shared();
  explicit AppIndexer(Options options);
  ~AppIndexer();
  AppIndexer(const AppIndexer&) = delete;
  AppIndexer& operator=(const AppIndexer&) = delete;

  // Stores the scopes ("~" expanded) and queues a full scan unless one is
  // queued and not yet started. The handler runs once, when the first scan
  // that starts after this call has finished (a scan already running used
  // the old scopes, so it does not count).
  void startIndexing(std::vector<std::string> scopes, FinishHandler indexDidFinishHandler = {});

  bool isReady() const { return isReady_.load(); }
  bool isIndexing() const { return isIndexing_.load(); }
  // Seconds since 1970 of the last finished scan; 0 before.
  double finalUpdatedTimestamp() const { return finalUpdatedTimestamp_.load(); }
  std::vector<std::string> searchScopes() const;
  // The current list; never waits for a scan.
  AppListRef appList() const { return appRef_.snapshot(); }
  // The folders file events are watched in (after the first scan).
  std::vector<std::string> watchedPaths() const;

  // Log lines of scans and batches, oldest first (the last few hundred).
  std::vector<std::string> logs() const;
  void setOnLog(std::function<void(const std::string&)> observer);

  // Handles file events as the file-events service delivers them (on the
  // event queue; tests call it directly).
  void handleFileEvents(std::vector<FileEvent> events);
  // Blocks until the events and the scans and batches queued so far have
  // been handled (batches still waiting for their throttler do not count).
  void waitForPendingChanges();

 private:
  struct Liveness;

  void runScan();
  void runAddBatch();
  void runRemoveBatch();
  void addPath(const std::string& path);
  void requestRemoveBatch();
  void startWatching(double reportsFoldersChangedSince);
  FileEvents& fileEvents();
  // The list's desktop entries replaced by those of a refreshed catalog.
  std::vector<AppEntry> withDesktopEntriesRefreshed(std::vector<AppEntry> entries);
  bool isUnderDesktopFolder(const std::string& path) const;
  bool isWatched(const std::string& path) const;
  void publish(std::vector<AppEntry> entries, bool notify);
  void log(std::string line);
  const std::vector<VenturaSystemExtensionLocalizedName>& venturaSystemExtensionLocalizedNames();
  std::shared_ptr<Throttler> moveOutThrottler();
  std::shared_ptr<Throttler> fseventAddThrottler();

  Options options_;
  std::unique_ptr<DesktopCatalog> ownCatalog_;
  DesktopCatalog* catalog_;
  std::atomic<bool> watching_{false};  // a subscription was made
  LastUsedReader lastUsedReader_;
  std::shared_ptr<Liveness> liveness_;

  std::once_flag extensionNamesOnce_;
  std::vector<VenturaSystemExtensionLocalizedName> venturaSystemExtensionLocalizedNames_;

  mutable std::mutex stateMutex_;  // guards the fields below up to appRef_
  std::vector<FinishHandler> pendingHandlers_;
  std::vector<std::string> searchScopes_;
  bool scanQueued_ = false;
  std::vector<std::string> watchedPaths_;
  std::vector<std::string> logs_;
  std::function<void(const std::string&)> onLog_;

  std::atomic<bool> isReady_{false};
  std::atomic<bool> isIndexing_{false};
  std::atomic<double> finalUpdatedTimestamp_{0};
  UnfairlockAppArray appRef_;

  // Change watching.
  std::shared_ptr<DispatchQueue> fseventQueue_;
  std::optional<FileEventID> lastRenameEventID_;  // on fseventQueue_
  std::string lastPath_;                          // on fseventQueue_
  std::shared_ptr<DispatchQueue> fseventOperationQueue_;
  std::mutex throttlersMutex_;
  std::shared_ptr<Throttler> moveOutThrottler_;
  std::shared_ptr<Throttler> fseventAddThrottler_;
  UnfairLock filesAddQueueLock_;  // guards filesAddQueue_ only
  std::set<std::string> filesAddQueue_;  // paths waiting for the add batch
  std::string fileEventWatcherIdentifier_;
};

}  // namespace quorvi

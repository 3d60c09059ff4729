// FileIndexer: the one file index of the process. It owns the records
// (fileRef), the scopes they came from, the filter, the summary of the last
// run and the state the client sees:
//
//   state             isIndexing  indexResultDescription        indexDescription
//   never indexed     false       absent                        absent
//   indexing          true        absent                        ""
//   ready             false       present, isReady true         "#fs ends N in T s"
//   emptied           false       present, count 0, time 0,     absent
//                                 isReady true, changed = now
//
// Scope changes (start, add, remove) are accepted on the main thread only
// (DispatchQueue::main()); a call from another thread does nothing. The heavy
// part of each (walk, record building, removal) runs on the index's mutation
// queue "com.quorvi.fsevent", one at a time and in the order requested, so a
// removal never races a scan. A start supersedes a scan still under way: the
// older walk stops early and publishes nothing.
//
// Upkeep. After a run the index watches its scopes through the file-events
// service (fsevents/file_events.h) and stays true to the disk: events arrive
// on "com.quorvi.fsevent" and are noted (file_upkeep.h); a throttler on
// "com.quorvi.fsevent.operation" (at once after a quiet spell, then at most
// every 50 ms, and never postponed past half a second by a steady trickle)
// looks at the places they name on disk and builds a change, which the
// mutation queue applies (index_editor.h). Every change is a line of the
// event log. #5 stops the watching and remembers the event id; #6 starts it
// again from there, so what happened meanwhile is replayed (or, when the
// history cannot tell it, the scopes are walked again).
//
// "com.quorvi.fileIndexStateDidChange" is posted at every state change, at
// the end of every scan (start or add), and after a change that altered the
// summary's count.
//
// Searches read a snapshot of fileRef (a few pointers copied under its lock)
// and never wait for a scan or a change.
#pragma once

#include <atomic>
#include <functional>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/dispatch.h"
#include "common/throttler.h"
#include "fileindex/file.h"
#include "fileindex/file_upkeep.h"
#include "fileindex/filter.h"
#include "fileindex/index_editor.h"
#include "fileindex/match_logic.h"
#include "fileindex/scope_rules.h"
#include "fileindex/unfairlock_file_array.h"
#include "fsevents/file_events.h"

namespace quorvi {

// A consistent view of the index's records at one moment, for readers
// outside the index (metadata queries, desktop search providers). It holds
// the record tables it was made from, so it stays valid and unchanged while
// the index moves on; make a new one per request.
class FileIndexSnapshot {
 public:
  FileIndexSnapshot() = default;
  explicit FileIndexSnapshot(FileSegments segments) : segments_(std::move(segments)) {}
  // Calls visit(table, row) for every live record in index order (newest
  // first) until it returns false. Use the table's accessors (name, path,
  // isDirectory, lastUsedTimestamp, matchText) on that row.
  void forEach(const std::function<bool(const FileTable& table, std::size_t row)>& visit) const;
  std::size_t count() const;

 private:
  FileSegments segments_;
};

class FileIndexer {
 public:
  // The process-wide index (standard home, preferences and settings).
  static FileIndexer& shared();
  // An index reading its filter inputs from the given environment, watching
  // through the given file-events service (null: the shared one) (tests).
  explicit FileIndexer(FilterEnvironment environment, bool logsToStandardOutput = false,
                       FileEvents* fileEvents = nullptr);
  ~FileIndexer();
  FileIndexer(const FileIndexer&) = delete;
  FileIndexer& operator=(const FileIndexer&) = delete;

  // --- scope changes (main thread only) ---
  void startIndexing(std::vector<std::string> scopes);
  void addSearchScopes(std::vector<std::string> scopes);
  void removeSearchScopes(std::vector<std::string> scopes);
  // Sleep and wake (#5, #6): remember where file events should resume.
  void workspaceWillSleep();
  void workspaceDidAwake();

  // --- state ---
  struct State {
    bool isIndexing = false;
    std::optional<FileIndexResultDescription> indexResultDescription;
    std::optional<std::string> indexDescription;
  };
  State state() const;
  std::vector<std::string> searchScopes() const;
  std::shared_ptr<const Filter> filter() const;
  std::shared_ptr<const ScopeRules> rules() const;
  PerformanceSnapshot performanceSnapshot() const;
  // Records found so far by the scan under way (0 when none runs).
  int64_t scanProgress() const { return scanProgress_.load(std::memory_order_relaxed); }
  UnfairlockFileArray& fileRef() { return fileRef_; }
  FileIndexSnapshot snapshot() const { return FileIndexSnapshot(fileRef_.copy()); }
  DispatchQueue& fseventQueue() { return *fseventQueue_; }
  // Blocks until every mutation queued so far has run (tools and tests).
  void waitForPendingChanges();
  // Blocks until the changes on disk reported so far are in the index
  // (tools and tests).
  void waitForUpkeep();

  // --- searches (any thread) ---
  // Hits that passed the post-check, in index order. Stale hits are dropped
  // from the index on the mutation queue; the answer does not wait for that.
  std::vector<File> searchFiles(std::string_view query, int64_t maxcount);
  // Only records whose path begins with directory + "/" (an empty directory
  // matches nothing).
  std::vector<File> searchFiles(std::string_view directory, std::string_view query, int64_t maxcount);
  // Only folders; an empty query searches nothing.
  std::vector<File> searchFolders(std::string_view query, int64_t maxcount);
  // Whether some record's path equals the path.
  bool containsFile(std::string_view path) const;
  // Code-editor workspaces: files named "*.code-workspace".
  std::vector<File> codeWorkspaces();
  // IDE projects: folders "*.xcodeproj" and "*.xcworkspace", and the project
  // files of Linux IDEs: "*.sln" (Rider, MonoDevelop), "*.ipr" (IntelliJ),
  // "*.kdev4" (KDevelop), "*.cbp" (Code::Blocks), "*.qbs" (Qt Creator).
  std::vector<File> ideProjects();
  bool isEmpty() const { return fileRef_.count() == 0; }

  // Post-check of hits: ones whose path is gone, in the trash or now ignored
  // by the filter are dropped and removed from the index; one replaced at
  // its path by another file (an editor's save) is kept and its record
  // refreshed.
  std::vector<File> checkedHits(const FileSegments& segments, const std::vector<RecordRef>& hits);

 private:
  std::vector<File> search(std::string_view query, int64_t maxcount,
                           const std::function<bool(const FileTable&, std::size_t)>& admit);
  std::vector<File> filesNamed(const std::vector<std::string>& suffixes, bool folders, bool files);
  void runScan(uint64_t generation, double startTime, double startWallTime);
  void runAdd(uint64_t generation, std::vector<std::string> added);
  void removeStale(std::vector<FileReference> stale);
  void setScopes(std::vector<std::string> scopes);  // with the filter and rules; under stateMutex_
  void watch(std::optional<FileEventID> sinceWhen, double changedSince);
  void handleEvents(std::vector<FileEvent> events);
  void scheduleUpkeep();
  void runUpkeep(uint64_t generation);
  void commit(IndexEditor::Change change, std::vector<std::string> lines, uint64_t generation);
  void countChanged();
  void post();
  void log(const std::string& line) const;

  FilterEnvironment environment_;
  bool logsToStandardOutput_;

  mutable std::mutex stateMutex_;  // guards the fields below up to filter_
  bool fseventHasChanged_ = false;
  std::optional<FileIndexResultDescription> indexResultDescription_;
  double consumeTime_ = 0;
  std::vector<std::string> searchScopes_;
  bool isIndexing_ = false;
  std::optional<std::string> indexDescription_;
  std::shared_ptr<const Filter> filter_;
  std::shared_ptr<const ScopeRules> rules_;
  std::optional<uint64_t> streamID_;
  bool watching_ = false;
  double lastRunSeconds_ = 0;

  UnfairlockFileArray fileRef_;
  std::shared_ptr<DispatchQueue> fseventQueue_;
  std::shared_ptr<DispatchQueue> fseventOperationQueue_;
  std::string fileEventWatcherIdentifier_;
  std::atomic<uint64_t> generation_{0};
  std::atomic<int64_t> scanProgress_{0};
  FileEvents& fileEvents_;
  FileUpkeep upkeep_;
  IndexEditor editor_{fileRef_};
  std::shared_ptr<Throttler> fseventOperationThrottler_;  // made on first use
  std::mutex throttleMutex_;
  double pendingSince_ = 0;  // when the oldest change still waiting was noted (monotonic)
  std::atomic<bool> commitPending_{false};
  // Work queued with a delay checks this before touching the index.
  std::shared_ptr<std::atomic<bool>> alive_ = std::make_shared<std::atomic<bool>>(true);

  // Performance counters.
  std::atomic<int64_t> runs_{0};
  std::atomic<double> lastRunTime_{0};
  std::atomic<int64_t> searches_{0};
  std::atomic<double> lastSearchTime_{0};
  std::atomic<int64_t> staleRemoved_{0};
  std::atomic<int64_t> p_changes{0};
  std::atomic<double> p_lastChangeTimestamp{0};
};

// The entries of a directory read from disk (not from the index), sorted by
// name; hidden ones (names beginning with ".") left out when asked. nullopt
// when the directory cannot be read. A folder of millions of entries must not
// hold a thread for seconds: at most `maxNamesRead` names are read, and the
// first `maxEntries` of them by name are returned (and looked at).
std::optional<std::vector<FileBridge>> directoryFiles(const std::string& directory, bool skipHiddenFiles,
                                                      std::size_t maxEntries = 10000,
                                                      std::size_t maxNamesRead = 200000);

}  // namespace quorvi

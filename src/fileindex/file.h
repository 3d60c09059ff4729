// The file index's records: File (one indexed file or folder), the records
// sent to the client (FileBridge, MatchableFileBridge), the summary of an
// index run (FileIndexResultDescription) and the performance snapshot.
//
// A file reference on this system is the item's (device, inode) plus the path
// it was found at. Two references are the same item exactly when device and
// inode agree; the path is where the item is looked for. "Reachable" means
// that path still leads (without following a final symlink) to that same
// device and inode.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "common/json.h"
#include "fileindex/c_string_ref.h"

namespace quorvi {

struct FileReference {
  uint64_t device = 0;
  uint64_t inode = 0;
  std::string path;

  // Equality is identity of the item; the path takes no part.
  bool operator==(const FileReference& other) const {
    return device == other.device && inode == other.inode;
  }
  // The path the reference resolves to now ("" when it has none).
  const std::string& currentPath() const { return path; }
  bool isReachable() const;
};

struct FileReferenceHash {
  std::size_t operator()(const FileReference& reference) const {
    return std::hash<uint64_t>()(reference.inode * 0x9E3779B97F4A7C15ull ^ reference.device);
  }
};

struct File {
  std::string nameOfDisplay;
  FileReference fileRefURL;
  bool isDirectory = false;
  double lastUsedTimestamp = 0;  // seconds since 1970 of the last modification
  CStringRef cmatchs;            // the text keyword searches run over

  // Equal exactly when the references are (name, flags, time take no part).
  bool operator==(const File& other) const { return fileRefURL == other.fileRefURL; }
  // Ordered by lastUsedTimestamp alone.
  bool operator<(const File& other) const { return lastUsedTimestamp < other.lastUsedTimestamp; }
  bool operator<=(const File& other) const { return lastUsedTimestamp <= other.lastUsedTimestamp; }
  bool operator>(const File& other) const { return lastUsedTimestamp > other.lastUsedTimestamp; }
  bool operator>=(const File& other) const { return lastUsedTimestamp >= other.lastUsedTimestamp; }
};

struct FileHash {
  std::size_t operator()(const File& file) const { return FileReferenceHash()(file.fileRefURL); }
};

// A file as sent to the client.
struct FileBridge {
  std::string nameOfDisplay;
  std::string path;
  bool isFolder = false;

  static FileBridge from(const File& file);
  Json toJson() const;
};

// A file with the text it is matched on.
struct MatchableFileBridge {
  std::string nameOfDisplay;
  std::string path;
  bool isFolder = false;
  std::string matchs;

  static MatchableFileBridge from(const File& file);
  Json toJson() const;
};

// Summary of the last completed index run.
struct FileIndexResultDescription {
  bool isReady = false;
  int64_t countOfFiles = 0;
  double consumeTime = 0;       // seconds the run took
  double finalChangedTime = 0;  // seconds since 1970 of the index's last change

  Json toJson() const;
};

// What the index has done since it was created, for #19. Counts are totals
// since the process started; times are seconds.
struct PerformanceSnapshot {
  int64_t countOfFiles = 0;        // records in the index now
  int64_t countOfFolders = 0;      // folders the index knows paths of
  int64_t bytesOfIndex = 0;        // memory held by the records and their texts
  double bytesPerEntry = 0;        // bytesOfIndex / countOfFiles (0 when empty)
  bool isIndexing = false;
  int64_t scanProgress = 0;        // records found so far by the scan under way (0 when none runs)
  int64_t runs = 0;                // completed scans (start or add)
  double lastRunTime = 0;          // duration of the last scan
  int64_t searches = 0;            // keyword searches answered
  double lastSearchTime = 0;       // duration of the last search, post-check included
  int64_t staleRecordsRemoved = 0; // records dropped after a search found them gone or ignored
  int64_t fileEventsHandled = 0;   // file-system changes applied (p_changes)
  double lastChangeTimestamp = 0;  // seconds since 1970 of the last change (p_lastChangeTimestamp)
  int64_t watchedFolders = 0;      // folders kept current by a file watch
  int64_t sweptFolders = 0;        // folders beyond the watch budget, kept current by sweeps
  int64_t watchBudget = 0;         // watches the service allows itself
  int64_t bytesOfWatches = 0;      // memory held for the watched folders
  int64_t eventQueueOverflows = 0; // times the kernel dropped events (repaired by a sweep)

  Json toJson() const;
};

// Seconds since 1970, now.
double secondsSince1970();

}  // namespace quorvi

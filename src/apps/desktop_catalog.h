// DesktopCatalog: the desktop entries installed for the user, resolved the
// way the desktop resolves them, shared by the app index and the running-
// processes list so that both agree on what an application is.
//
// Resolution: the applications folders are read in order of precedence
// ($XDG_DATA_HOME's first, then each of $XDG_DATA_DIRS); an entry in a
// subfolder has the folders in its id joined by "-" (kde/okular.desktop is
// "kde-okular.desktop"); the first folder that has an id wins, and an entry
// marked Hidden there removes that id altogether. A file that cannot be read
// or parsed claims no id.
//
// Readers never wait behind a refresh: the catalog publishes an immutable
// snapshot, swapped under a short lock. Refreshes run one at a time (on the
// thread that asks for one, or on the catalog's serial queue of background
// quality of service for refreshInBackground) and parse only the files that
// changed since the last one (same device, inode, size and modification time
// are taken as unchanged). A cold read parses the files on the background
// pool in parallel.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "apps/desktop_entry.h"
#include "common/dispatch.h"

namespace quorvi {

class DesktopCatalogSnapshot {
 public:
  DesktopCatalogSnapshot(std::vector<DesktopEntry> entries, uint64_t generation);

  // The resolved entries that are not Hidden, sorted by desktop id. Entries
  // of every Type are kept; readers pick what they show.
  const std::vector<DesktopEntry>& entries() const { return entries_; }
  const DesktopEntry* entryWithId(std::string_view desktopId) const;
  const DesktopEntry* entryAtPath(std::string_view filePath) const;
  // Increases with each published snapshot of a catalog.
  uint64_t generation() const { return generation_; }

 private:
  std::vector<DesktopEntry> entries_;
  std::map<std::string, std::size_t, std::less<>> byPath_;
  uint64_t generation_;
};

using DesktopCatalogSnapshotRef = std::shared_ptr<const DesktopCatalogSnapshot>;

class DesktopCatalog {
 public:
  // The process-wide catalog over AppEnvironment::standard()'s folders.
  static DesktopCatalog& shared();
  explicit DesktopCatalog(std::vector<std::string> applicationDirectories);
  ~DesktopCatalog();
  DesktopCatalog(const DesktopCatalog&) = delete;
  DesktopCatalog& operator=(const DesktopCatalog&) = delete;

  const std::vector<std::string>& directories() const { return directories_; }

  // The published snapshot. Before the first one exists, the caller reads
  // the folders (the first read has nothing older to answer with).
  DesktopCatalogSnapshotRef snapshot();
  // As snapshot(); when a folder changed since it was taken (a few stat
  // calls tell), a refresh is queued and this answer does not wait for it.
  DesktopCatalogSnapshotRef currentSnapshot();
  // Reads the folders now, on the calling thread (after a refresh under way
  // elsewhere), and answers the snapshot published by it (the same one when
  // nothing changed). Background work only: it reads the disk.
  DesktopCatalogSnapshotRef refresh();
  void refreshInBackground();

  // For tests and benchmarks: how many files the last refresh parsed.
  std::size_t lastParsedCount() const;

 private:
  struct CachedFile {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t modified = 0;  // nanoseconds
    std::optional<DesktopEntry> entry;
  };
  struct FoundFile {
    std::string path;
    std::string desktopId;
    dev_t device;
    ino_t inode;
    off_t size;
    int64_t modified;
  };
  using Signature = std::vector<std::pair<std::string, int64_t>>;  // folder, modification time

  void runRefresh();  // under refreshLock_
  bool isStale(const Signature& signature) const;
  // Folders are entered once each (by device and inode): a link back up
  // adds nothing.
  void walk(const std::string& root, int rootFd, const std::string& folder, const std::string& idPrefix, int depth,
            std::vector<FoundFile>& found, Signature& signature,
            std::set<std::pair<dev_t, ino_t>>& visited) const;

  std::vector<std::string> directories_;
  std::shared_ptr<DispatchQueue> queue_;

  mutable std::mutex publishLock_;  // guards snapshot_ and signature_ only
  DesktopCatalogSnapshotRef snapshot_;
  Signature signature_;
  bool refreshQueued_ = false;

  std::mutex firstReadLock_;  // only the very first read waits on it

  std::mutex refreshLock_;  // one refresh at a time; guards the fields below
  std::map<std::string, CachedFile> cache_;
  uint64_t generation_ = 0;
  std::atomic<std::size_t> lastParsed_{0};
};

}  // namespace quorvi

// The scope scan: walks folders by the scope rules (scope_rules.h), builds
// one record per item it records and returns them as a table, newest first.
//
// Walking. Folders are read with getdents64 on an O_DIRECTORY descriptor and
// each kept entry is stat'ed relative to that descriptor (fstatat), so the
// kernel never resolves a whole path per entry. Folders are spread over the
// background pool's workers; reading, stat'ing and building match texts all
// happen there. A worker that finds no folder waiting returns its thread to
// the pool instead of waiting for one: more workers are asked for whenever
// new folders are found.
//
// Folders. The result's folder tree holds one entry per folder path: a root
// that lies inside another root's folders shares that entry, and an item
// reached by two overlapping walks is recorded once.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fileindex/file_table.h"
#include "fileindex/scope_rules.h"

namespace quorvi {

enum EnumerationOption : unsigned {
  kSkipsPackageDescendants = 2,
  kSkipsHiddenFiles = 4,
};

// One scope to walk, as the options of a directory enumeration.
struct EnumeratePath {
  std::string path;
  unsigned option = kSkipsPackageDescendants | kSkipsHiddenFiles;
  std::vector<std::string> propertiesKeys;  // none are requested
};
EnumeratePath enumeratePathFor(const std::string& scope, const std::string& homeDirectory);

struct ScanResult {
  FileTableRef table;                         // the records, newest first
  std::shared_ptr<const FolderTree> folders;  // its folders; the walked roots are its roots
  bool cancelled = false;
  std::vector<std::string> walkedRoots;       // roots that could be opened
};

class ScopeScan {
 public:
  explicit ScopeScan(const ScopeRules& rules);
  // Stops the walk soon when the value changes away from `expected`.
  void setCancellation(const std::atomic<uint64_t>* generation, uint64_t expected);
  // Counts items recorded so far (for progress displays); may be null.
  void setProgressCounter(std::atomic<int64_t>* counter) { progress_ = counter; }

  // Walks every scope of the rules: a run.
  ScanResult run();
  // Walks below the given folders (their own entries are not recorded).
  ScanResult walk(const std::vector<ScanRoot>& roots);

 private:
  struct Walk;
  const ScopeRules& rules_;
  const std::atomic<uint64_t>* generation_ = nullptr;
  uint64_t expected_ = 0;
  std::atomic<int64_t>* progress_ = nullptr;
};

// The file row of one item found on disk (`name` in `folder`), from an
// lstat of it; the match text is built here. False when it is gone.
struct ItemRow {
  double lastUsedTimestamp = 0;
  uint64_t device = 0;
  uint64_t inode = 0;
  bool isDirectory = false;
  std::string matchText;
};
bool readItem(const std::string& path, ItemRow& row);

}  // namespace quorvi

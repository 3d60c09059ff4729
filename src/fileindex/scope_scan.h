// The scope scan: walks scope folders, drops what the filter ignores, builds
// one record per remaining item and returns them as a table, newest first.
//
// Walking. Folders are read with getdents64 on an O_DIRECTORY descriptor and
// each kept entry is stat'ed relative to that descriptor (fstatat), so the
// kernel never resolves a whole path per entry. Folders are spread over the
// dispatch layer's workers (concurrentPerform); reading, stat'ing and building
// match texts all happen there. Symlinks are recorded, never followed.
//
// Options per scope: hidden entries (names beginning with ".") are skipped,
// and so is everything under them, except in a cloud-drive scope (see
// cloudDriveScopes()). Package contents are skipped everywhere: a package is
// a folder whose extension names a bundle (isPackageName()); the package
// itself is recorded.
//
// Ignored folders. A folder the filter ignores is still entered unless the
// filter says everything under it is ignored too; the result is the same as
// testing every item one by one, only faster.
//
// Overlapping scopes. A scope's item is not recorded again when an earlier
// scope (earlier in the list, or already in the index) already yields it:
// that is, it lies under the earlier scope and the earlier scope's walk
// reaches it (no hidden step it skips, no package on the way).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fileindex/file_table.h"
#include "fileindex/filter.h"

namespace quorvi {

enum EnumerationOption : unsigned {
  kSkipsPackageDescendants = 2,
  kSkipsHiddenFiles = 4,
};

// One scope to walk.
struct EnumeratePath {
  std::string path;
  unsigned option = kSkipsPackageDescendants | kSkipsHiddenFiles;
  std::vector<std::string> propertiesKeys;  // none are requested
};

// Scopes in which hidden files are indexed: the home's
// "Library/Mobile Documents" (kept for clients that send it), and the sync
// folders of the cloud-drive clients used on Linux desktops: ~/Nextcloud,
// ~/ownCloud, ~/Dropbox, ~/OneDrive, ~/pCloudDrive, ~/MEGA, ~/Seafile. A scope
// gets hidden files only when it equals one of them.
std::vector<std::string> cloudDriveScopes(const std::string& homeDirectory);
EnumeratePath enumeratePathFor(const std::string& scope, const std::string& homeDirectory);
// Folder extensions treated as packages (contents not indexed): app, bundle,
// framework, plugin, kext, xpc, appex, xcodeproj, xcworkspace, xcassets,
// photoslibrary, musiclibrary, photolibrary, playground, rtfd, pages,
// numbers, key, lproj is not one (it is a plain folder).
bool isPackageName(std::string_view name);

// Drops trailing slashes ("/" stays "/").
std::string normalizedScope(std::string scope);

struct ScanResult {
  FileTableRef table;                         // new records, newest first
  std::shared_ptr<const FolderTree> folders;  // base tree plus the new folders
  bool cancelled = false;
  std::vector<std::string> walkedScopes;      // scopes that could be opened
};

class ScopeScan {
 public:
  ScopeScan(const Filter& filter, std::string homeDirectory);
  // Stops the walk soon when the value changes away from `expected`.
  void setCancellation(const std::atomic<uint64_t>* generation, uint64_t expected);
  // Counts items recorded so far (for progress displays); may be null.
  void setProgressCounter(std::atomic<int64_t>* counter) { progress_ = counter; }

  // Walks `scopes`; items that `earlierScopes` already yield are left out.
  // New folder ids continue after those of `base`.
  ScanResult run(const std::vector<std::string>& scopes, const std::vector<std::string>& earlierScopes,
                 std::shared_ptr<const FolderTree> base);

 private:
  struct Walk;
  const Filter& filter_;
  std::string homeDirectory_;
  const std::atomic<uint64_t>* generation_ = nullptr;
  uint64_t expected_ = 0;
  std::atomic<int64_t>* progress_ = nullptr;
};

}  // namespace quorvi

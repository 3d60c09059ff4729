// ScopeRules: what a walk of the index's scopes records and where it goes,
// decided from a path alone. The scan walks by these rules; the upkeep asks
// them about every changed path and the file watches about every folder, so
// that the three agree and the index after any change equals a fresh walk.
//
// A scope's walk
//  - skips hidden entries (names beginning with ".") and everything under
//    them, unless the scope is a cloud-drive folder (cloudDriveScopes());
//  - records a package (a folder whose extension names a bundle) but does
//    not enter it;
//  - drops the items the filter ignores, and enters an ignored folder unless
//    the filter ignores everything that can lie under it;
//  - skips placeholders of files kept in the cloud (".name.icloud") and the
//    temporary folders of archive tools (".TheUnarchiverTemp"), which stand
//    for files that are not there yet.
// Symbolic links are recorded, never followed (a scope that is itself a
// link is followed). An item under several scopes is recorded when any of
// their walks records it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fileindex/filter.h"

namespace quorvi {

// One folder to walk, and how.
struct ScanRoot {
  std::string path;
  bool skipsHidden = true;
  bool skipsPackages = true;
  bool followsLink = true;  // a scope may be a link; a folder found inside one is not followed
};

// Scopes in which hidden files are indexed: the home's
// "Library/Mobile Documents" (kept for clients that send it), and the sync
// folders of the cloud-drive clients used on Linux desktops: ~/Nextcloud,
// ~/ownCloud, ~/Dropbox, ~/OneDrive, ~/pCloudDrive, ~/MEGA, ~/Seafile. A scope
// gets hidden files only when it equals one of them.
std::vector<std::string> cloudDriveScopes(const std::string& homeDirectory);

// Folder extensions treated as packages (contents not indexed): app, bundle,
// framework, plugin, kext, xpc, appex, xcodeproj, xcworkspace, xcassets,
// photoslibrary, musiclibrary, photolibrary, playground, rtfd, pages,
// numbers, key.
bool isPackageName(std::string_view name);
// A name that stands for something not there yet: a cloud placeholder or an
// archive tool's temporary folder.
bool isPlaceholderName(std::string_view name);

// Drops trailing slashes ("/" stays "/").
std::string normalizedScope(std::string scope);

class ScopeRules {
 public:
  ScopeRules() = default;
  ScopeRules(std::vector<std::string> scopes, std::shared_ptr<const Filter> filter, std::string homeDirectory);

  const std::vector<std::string>& scopes() const { return scopes_; }
  const Filter& filter() const { return *filter_; }
  std::shared_ptr<const Filter> sharedFilter() const { return filter_; }
  const std::string& homeDirectory() const { return home_; }

  // How a scope is walked.
  ScanRoot rootFor(const std::string& scope) const;
  // Whether some scope's walk records the item at `path`.
  bool records(std::string_view path) const;
  // Whether some scope's walk enters the folder at `path` (a scope itself
  // is always entered).
  bool enters(std::string_view path) const;
  // The same for a folder whose parent some walk enters; cheaper.
  bool entersChild(std::string_view path) const;
  // How to walk below a folder some walk enters (the most inclusive of the
  // walks that enter it), not following a link at the folder itself.
  std::optional<ScanRoot> walkBelow(std::string_view folder) const;
  // Whether the walks record the items below `from` and below `to` alike,
  // so that records can be moved from one to the other without a walk.
  bool movesAlike(std::string_view from, std::string_view to) const;

 private:
  // Whether scope `scope` walks to `path` and, as asked, records it or
  // enters it.
  bool reaches(const ScanRoot& scope, std::string_view path, bool asFolder) const;

  std::vector<std::string> scopes_;
  std::vector<ScanRoot> roots_;
  std::shared_ptr<const Filter> filter_ = std::make_shared<Filter>();
  std::string home_;
};

}  // namespace quorvi

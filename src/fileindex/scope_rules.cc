#include "fileindex/scope_rules.h"

#include <cstring>

#include "fileindex/match_text.h"

namespace quorvi {

namespace {

const char* const kPackageExtensions[] = {
    "app",       "bundle",        "framework",     "plugin",       "kext",       "xpc",   "appex",
    "xcodeproj", "xcworkspace",   "xcassets",      "photoslibrary", "musiclibrary", "photolibrary",
    "playground", "rtfd",         "pages",         "numbers",      "key",
};

bool isHiddenName(std::string_view name) { return !name.empty() && name.front() == '.'; }

// path lies strictly inside folder (with a separator between).
bool isStrictlyUnder(std::string_view path, std::string_view folder) {
  if (folder.empty() || path.size() <= folder.size() || path.compare(0, folder.size(), folder) != 0) return false;
  return folder.back() == '/' || path[folder.size()] == '/';
}

}  // namespace

std::vector<std::string> cloudDriveScopes(const std::string& home) {
  return {home + "/Library/Mobile Documents", home + "/Nextcloud", home + "/ownCloud", home + "/Dropbox",
          home + "/OneDrive", home + "/pCloudDrive", home + "/MEGA", home + "/Seafile"};
}

bool isPackageName(std::string_view name) {
  std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return false;
  std::string extension = lowercasedName(name.substr(dot + 1));
  for (const char* candidate : kPackageExtensions) {
    if (extension == candidate) return true;
  }
  return false;
}

bool isPlaceholderName(std::string_view name) {
  return name == ".TheUnarchiverTemp" || (isHiddenName(name) && name.size() > 7 && name.ends_with(".icloud"));
}

std::string normalizedScope(std::string scope) {
  while (scope.size() > 1 && scope.back() == '/') scope.pop_back();
  return scope;
}

ScopeRules::ScopeRules(std::vector<std::string> scopes, std::shared_ptr<const Filter> filter, std::string home)
    : scopes_(std::move(scopes)), filter_(std::move(filter)), home_(std::move(home)) {
  if (!filter_) filter_ = std::make_shared<Filter>();
  for (const auto& scope : scopes_) roots_.push_back(rootFor(scope));
}

ScanRoot ScopeRules::rootFor(const std::string& scope) const {
  ScanRoot root{normalizedScope(scope), true, true, true};
  for (const auto& cloud : cloudDriveScopes(home_)) {
    if (root.path == cloud) root.skipsHidden = false;
  }
  return root;
}

bool ScopeRules::reaches(const ScanRoot& scope, std::string_view path, bool asFolder) const {
  if (!isStrictlyUnder(path, scope.path)) return asFolder && path == scope.path;
  std::size_t at = scope.path.size() + (scope.path.back() == '/' ? 0 : 1);
  for (;;) {
    std::size_t end = path.find('/', at);
    const bool last = end == std::string_view::npos;
    if (last) end = path.size();
    std::string_view name = path.substr(at, end - at);
    if (name.empty()) return false;
    if (scope.skipsHidden && isHiddenName(name)) return false;
    if (isPlaceholderName(name)) return false;
    if (last) break;
    // An ancestor below the scope: the walk must have entered it.
    if (scope.skipsPackages && isPackageName(name)) return false;
    if (filter_->ignoresEverythingUnder(path.substr(0, end))) return false;
    at = end + 1;
  }
  if (asFolder) {
    std::string_view name = path.substr(path.rfind('/') + 1);
    return !(scope.skipsPackages && isPackageName(name)) && !filter_->ignoresEverythingUnder(path);
  }
  return !filter_->isIgnored(path);
}

bool ScopeRules::records(std::string_view path) const {
  for (const auto& root : roots_) {
    if (reaches(root, path, false)) return true;
  }
  return false;
}

bool ScopeRules::enters(std::string_view path) const {
  for (const auto& root : roots_) {
    if (reaches(root, path, true)) return true;
  }
  return false;
}

bool ScopeRules::entersChild(std::string_view path) const {
  std::string_view name = path.substr(path.rfind('/') + 1);
  if (isHiddenName(name)) return enters(path);  // only a cloud-drive walk goes on
  if (isPackageName(name) || filter_->ignoresEverythingUnder(path)) {
    // A scope may lie exactly here.
    for (const auto& root : roots_) {
      if (root.path == path) return true;
    }
    return false;
  }
  return true;
}

std::optional<ScanRoot> ScopeRules::walkBelow(std::string_view folder) const {
  std::optional<ScanRoot> best;
  for (const auto& root : roots_) {
    if (!reaches(root, folder, true)) continue;
    if (!best || (best->skipsHidden && !root.skipsHidden)) {
      best = root;
      best->path = std::string(folder);
      best->followsLink = folder == root.path;
    }
  }
  return best;
}

bool ScopeRules::movesAlike(std::string_view from, std::string_view to) const {
  auto from_ = walkBelow(from), to_ = walkBelow(to);
  if (!from_ || !to_) return false;
  if (from_->skipsHidden != to_->skipsHidden || from_->skipsPackages != to_->skipsPackages) return false;
  // A scope inside either changes what lies below it.
  for (const auto& root : roots_) {
    if (isStrictlyUnder(root.path, from) || isStrictlyUnder(root.path, to)) return false;
  }
  return filter_->keepsVerdictsBelowWhenMoved(from, to);
}

}  // namespace quorvi

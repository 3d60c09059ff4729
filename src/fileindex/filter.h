// Filter: decides whether a path is left out of the file index. Its rules come
// from the user-editable preferences file
// $XDG_DATA_HOME/Quorvi/Data/Customize/FileIndexIgnorePaths (JSON; written with
// the default text when missing) plus rules built in from the home folder.
// A fresh Filter is built at every start of indexing; searches ask it again
// about every hit, so a path ignored after it was indexed drops out.
//
// Rules, in order; the first that fires ignores the path:
//  1. the last component begins with "~$" (office lock files);
//  2. an "ignoreKeywords" entry occurs anywhere in the path (bytes);
//  3. the extension of the last component, lower-cased, equals an
//     "ignorePathExtensions" entry (a leading dot starts no extension);
//  4. the path begins with an "ignorePaths" entry, then with an
//     "ignorePackagePaths" entry (byte prefixes over the entry's length), then
//     lies at or under a built-in home path (home + "/Applications",
//     "/Pictures/Photos Library.photoslibrary", "/Music/Music Library.musiclibrary",
//     "/Pictures/Photo Booth Library", "/Music/iTunes", "/.Trash",
//     "/.local/share/Trash") unless it lies under a scope chosen inside it;
//  5. the path equals an "ignoreFiles" entry;
//  6. some path component equals an "ignoreFolders" entry;
//  7. some path component equals an "ignorePackages" entry (folder bundles
//     such as node_modules are named, never inspected, so the test is the
//     same component test as rule 6 over its own list);
//  8. the path begins with home + "/Library" and with none of the scopes that
//     lie strictly inside that folder.
// Entries of length 0 are inert everywhere.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/json.h"
#include "fileindex/c_string_ref.h"

namespace quorvi {

class Settings;

// Where a filter reads its inputs; tests point it at temporary folders.
struct FilterEnvironment {
  std::string homeDirectory;
  std::string preferencesFile;  // full path of FileIndexIgnorePaths
  Settings* settings = nullptr; // holds the one-time migration flag
  // The user's home, $XDG_DATA_HOME/Quorvi/Data/Customize/FileIndexIgnorePaths
  // and the shared settings file.
  static FilterEnvironment standard();
};

class Filter {
 public:
  static constexpr const char* kPreferencesPath = "FileIndexIgnorePaths";
  static constexpr const char* kDidInitNodeModulesKey = "com.quorvi.settings.didInitIndexFilter_NODE_MODULES";
  static const char* defaultPreferencesJSON();

  // A filter that ignores only by its built-in rules of an empty home.
  Filter() = default;
  // Reads (and if needed writes) the preferences file and builds the rules
  // for the given scopes.
  static Filter build(const std::vector<std::string>& scopes, const FilterEnvironment& environment);

  bool isIgnored(std::string_view path) const;
  // True when the folder and everything that can ever lie under it are
  // ignored, so a walk need not enter it. Only rules that hold for every
  // descendant once they hold for the folder are used (2, 4, 6, 7, 8).
  bool ignoresEverythingUnder(std::string_view folderPath) const;
  // True when moving a folder from one path to another leaves every item
  // below it ignored or not as before, so that an index may move the folder's
  // records rather than walk it again. Conservative: false whenever a rule
  // could tell the two places apart.
  bool keepsVerdictsBelowWhenMoved(std::string_view from, std::string_view to) const;
  // The lists for logs, each under its header line.
  std::string description() const;

  const Json& preferences() const { return preferences_; }
  const std::vector<std::string>& searchScopes() const { return searchScopes_; }

 private:
  bool ignoredByBuiltInPath(std::string_view path) const;
  bool ignoredByLibrary(std::string_view path) const;

  std::string preferencesPath_ = kPreferencesPath;
  std::string oneDrivePath_;
  std::vector<std::string> searchScopes_;
  Json preferences_ = Json::object();
  std::vector<CStringRef> ignorePaths_;
  std::vector<CStringRef> ignorePackagePaths_;
  std::vector<CStringRef> ignoreFolders_;
  std::vector<CStringRef> ignorePackages_;
  std::vector<CStringRef> ignorePathExtensions_;
  std::vector<CStringRef> ignoreFiles_;
  std::vector<CStringRef> ignoreKeywords_;
  CStringRef pathOfLibrary_;
  std::vector<CStringRef> includeLibraryPaths_;
  // Built-in home paths, each with the scopes chosen at or inside it.
  struct BuiltInPath {
    std::string path;
    std::vector<std::string> scopesInside;
  };
  std::vector<BuiltInPath> builtInPaths_;
};

// True when the path lies in a trash folder ("/.Trash" anywhere, as on every
// volume, or the XDG trash under the given home).
bool isTrashPath(std::string_view path, std::string_view homeDirectory);

}  // namespace quorvi

#include "fileindex/filter.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "common/settings.h"
#include "fileindex/match_text.h"
#include "platform/atomic_file.h"
#include "platform/paths.h"

namespace quorvi {

namespace {

const char* const kDefaultPreferencesJSON = R"({
   "ignorePaths": [""],
   "ignorePackagePaths": [""],
   "ignoreFolders": ["node_modules"],
   "ignorePackages": ["node_modules"],
   "ignorePathExtensions": [""],
   "ignoreFiles": [""],
   "ignoreKeywords": [""],
   "indexVolumes": [""]
}
)";

const char* const kBuiltInHomePaths[] = {
    "/Applications",       "/Pictures/Photos Library.photoslibrary", "/Music/Music Library.musiclibrary",
    "/Pictures/Photo Booth Library", "/Music/iTunes", "/.Trash", "/.local/share/Trash",
};

bool fileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<CStringRef> stringList(const Json& preferences, const char* key) {
  std::vector<CStringRef> list;
  auto it = preferences.find(key);
  if (it == preferences.end() || !it->is_array()) return list;
  for (const auto& entry : *it) {
    if (entry.is_string()) list.emplace_back(entry.get<std::string>());
  }
  return list;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && std::memcmp(text.data(), prefix.data(), prefix.size()) == 0;
}

// The path itself or anything under it.
bool isAtOrUnder(std::string_view path, std::string_view folder) {
  return startsWith(path, folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

bool beginsWithAny(std::string_view path, const std::vector<CStringRef>& entries) {
  for (const auto& entry : entries) {
    std::string_view text = entry.view();
    if (!text.empty() && startsWith(path, text)) return true;
  }
  return false;
}

bool equalsAny(std::string_view text, const std::vector<CStringRef>& entries) {
  for (const auto& entry : entries) {
    std::string_view candidate = entry.view();
    if (!candidate.empty() && candidate == text) return true;
  }
  return false;
}

bool someComponentEquals(std::string_view path, const std::vector<CStringRef>& entries) {
  if (std::none_of(entries.begin(), entries.end(), [](const CStringRef& e) { return !e.isEmpty(); })) return false;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (end > start && equalsAny(path.substr(start, end - start), entries)) return true;
    start = end + 1;
  }
  return false;
}

std::string_view lastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view extensionOf(std::string_view name) {
  std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return {};
  return name.substr(dot + 1);
}

Json loadPreferences(const FilterEnvironment& environment) {
  const std::string& file = environment.preferencesFile;
  if (!fileExists(file)) {
    makeParentDirectories(file);
    writeFileAtomically(file, kDefaultPreferencesJSON);
  }
  Json preferences;
  if (auto text = readFile(file)) preferences = Json::parse(*text, nullptr, /*allow_exceptions=*/false);
  // A damaged file must not take the default rules away: read the default.
  if (!preferences.is_object()) preferences = Json::parse(kDefaultPreferencesJSON);
  return preferences;
}

// Once per user account: make sure node_modules is among the ignored folders.
// A user who removes it afterwards keeps that choice.
void migrateNodeModules(Json& preferences, const FilterEnvironment& environment) {
  if (!environment.settings) return;
  if (environment.settings->boolValue(Filter::kDidInitNodeModulesKey).value_or(false)) return;
  environment.settings->set(Filter::kDidInitNodeModulesKey, true);
  Json& folders = preferences["ignoreFolders"];
  if (!folders.is_array()) folders = Json::array();
  for (const auto& entry : folders) {
    if (entry.is_string() && entry.get<std::string>() == "node_modules") return;
  }
  folders.push_back("node_modules");
  writeFileAtomically(environment.preferencesFile, preferences.dump(3) + "\n");
}

}  // namespace

FilterEnvironment FilterEnvironment::standard() {
  return {quorvi::homeDirectory(),
          xdgDataHome() + "/Quorvi/Data/Customize/" + Filter::kPreferencesPath, &Settings::shared()};
}

const char* Filter::defaultPreferencesJSON() { return kDefaultPreferencesJSON; }

Filter Filter::build(const std::vector<std::string>& scopes, const FilterEnvironment& environment) {
  Filter filter;
  const std::string& home = environment.homeDirectory;
  filter.oneDrivePath_ = home + "/OneDrive";
  filter.searchScopes_ = scopes;
  filter.preferences_ = loadPreferences(environment);
  migrateNodeModules(filter.preferences_, environment);
  filter.ignorePaths_ = stringList(filter.preferences_, "ignorePaths");
  filter.ignorePackagePaths_ = stringList(filter.preferences_, "ignorePackagePaths");
  filter.ignoreFolders_ = stringList(filter.preferences_, "ignoreFolders");
  filter.ignorePackages_ = stringList(filter.preferences_, "ignorePackages");
  filter.ignorePathExtensions_ = stringList(filter.preferences_, "ignorePathExtensions");
  filter.ignoreFiles_ = stringList(filter.preferences_, "ignoreFiles");
  filter.ignoreKeywords_ = stringList(filter.preferences_, "ignoreKeywords");
  if (!home.empty()) {
    std::string library = home + "/Library";
    filter.pathOfLibrary_ = CStringRef(library);
    for (const auto& scope : scopes) {
      if (scope != library && startsWith(scope, library)) filter.includeLibraryPaths_.emplace_back(scope);
    }
    for (const char* suffix : kBuiltInHomePaths) {
      BuiltInPath builtIn{home + suffix, {}};
      for (const auto& scope : scopes) {
        if (isAtOrUnder(scope, builtIn.path)) builtIn.scopesInside.push_back(scope);
      }
      filter.builtInPaths_.push_back(std::move(builtIn));
    }
  }
  return filter;
}

bool Filter::ignoredByBuiltInPath(std::string_view path) const {
  for (const auto& builtIn : builtInPaths_) {
    if (!isAtOrUnder(path, builtIn.path)) continue;
    bool chosen = std::any_of(builtIn.scopesInside.begin(), builtIn.scopesInside.end(),
                              [&](const std::string& scope) { return isAtOrUnder(path, scope); });
    if (!chosen) return true;
  }
  return false;
}

bool Filter::ignoredByLibrary(std::string_view path) const {
  std::string_view library = pathOfLibrary_.view();
  if (library.empty() || !startsWith(path, library)) return false;
  return !beginsWithAny(path, includeLibraryPaths_);
}

bool Filter::isIgnored(std::string_view path) const {
  std::string_view name = lastComponent(path);
  if (startsWith(name, "~$")) return true;                                          // 1
  for (const auto& keyword : ignoreKeywords_) {                                     // 2
    if (!keyword.isEmpty() && path.find(keyword.view()) != std::string_view::npos) return true;
  }
  if (!ignorePathExtensions_.empty()) {                                             // 3
    std::string_view extension = extensionOf(name);
    if (!extension.empty() && equalsAny(lowercasedName(extension), ignorePathExtensions_)) return true;
  }
  if (beginsWithAny(path, ignorePaths_) || beginsWithAny(path, ignorePackagePaths_)) return true;  // 4
  if (ignoredByBuiltInPath(path)) return true;
  if (equalsAny(path, ignoreFiles_)) return true;                                   // 5
  if (someComponentEquals(path, ignoreFolders_)) return true;                       // 6
  if (someComponentEquals(path, ignorePackages_)) return true;                      // 7
  return ignoredByLibrary(path);                                                    // 8
}

bool Filter::ignoresEverythingUnder(std::string_view folder) const {
  for (const auto& keyword : ignoreKeywords_) {
    if (!keyword.isEmpty() && folder.find(keyword.view()) != std::string_view::npos) return true;
  }
  if (beginsWithAny(folder, ignorePaths_) || beginsWithAny(folder, ignorePackagePaths_)) return true;
  for (const auto& builtIn : builtInPaths_) {
    if (!isAtOrUnder(folder, builtIn.path)) continue;
    // A chosen scope at, inside or around this folder keeps some of it.
    bool keepsSome = std::any_of(builtIn.scopesInside.begin(), builtIn.scopesInside.end(),
                                 [&](const std::string& s) { return isAtOrUnder(s, folder) || isAtOrUnder(folder, s); });
    if (!keepsSome) return true;
  }
  if (someComponentEquals(folder, ignoreFolders_) || someComponentEquals(folder, ignorePackages_)) return true;
  std::string_view library = pathOfLibrary_.view();
  if (!library.empty() && startsWith(folder, library)) {
    for (const auto& include : includeLibraryPaths_) {
      std::string_view text = include.view();
      if (startsWith(folder, text) || startsWith(text, folder)) return false;
    }
    return true;
  }
  return false;
}

bool Filter::keepsVerdictsBelowWhenMoved(std::string_view from, std::string_view to) const {
  auto anyEntry = [](const std::vector<CStringRef>& list) {
    return std::any_of(list.begin(), list.end(), [](const CStringRef& entry) { return !entry.isEmpty(); });
  };
  // Rules on whole paths can tell any two places apart.
  if (anyEntry(ignoreKeywords_) || anyEntry(ignorePaths_) || anyEntry(ignorePackagePaths_) || anyEntry(ignoreFiles_)) {
    return false;
  }
  for (std::string_view path : {from, to}) {
    if (ignoresEverythingUnder(path)) return false;
    for (const auto& builtIn : builtInPaths_) {
      if (isAtOrUnder(path, builtIn.path) || isAtOrUnder(builtIn.path, path)) return false;
    }
    std::string_view library = pathOfLibrary_.view();
    if (!library.empty() && (startsWith(path, library) || startsWith(library, path))) return false;
  }
  return true;
}

std::string Filter::description() const {
  std::string text;
  auto section = [&](const char* header, const std::vector<CStringRef>& list) {
    text += header;
    for (const auto& entry : list) {
      text += entry.view();
      text += "\n";
    }
  };
  section("ignorePaths:\n", ignorePaths_);
  section("\nignorePackagePaths:\n", ignorePackagePaths_);
  section("\nignoreFolders:\n", ignoreFolders_);
  section("\nignorePackages:\n", ignorePackages_);
  section("\nignorePathExtensions:\n", ignorePathExtensions_);
  section("\nignoreFiles:\n", ignoreFiles_);
  section("\nignoreKeywords:\n", ignoreKeywords_);
  return text;
}

bool isTrashPath(std::string_view path, std::string_view homeDirectory) {
  if (path.find("/.Trash") != std::string_view::npos) return true;
  if (homeDirectory.empty()) return false;
  std::string xdgTrash = std::string(homeDirectory) + "/.local/share/Trash";
  return isAtOrUnder(path, xdgTrash);
}

}  // namespace quorvi

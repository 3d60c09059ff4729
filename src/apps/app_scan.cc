#include "apps/app_scan.h"

#include <dirent.h>
#include <sys/stat.h>

#include <set>

#include "apps/bundle_reader.h"
#include "apps/emulators.h"

namespace quorvi {

namespace {

constexpr const char* kCoreServices = "/System/Library/CoreServices";

bool isDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string fileNameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool isInside(const std::string& path, const std::string& folder) {
  return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

bool inSettingsLocation(const std::string& path, const AppEnvironment& environment) {
  for (const auto& location : settingsLocations(environment)) {
    if (isInside(path, location)) return true;
  }
  return false;
}

// Inside CoreServices only its Applications folder, Finder and AddPrinter
// are offered; anything outside that folder passes.
bool passesCoreServicesFilter(const std::string& path, const AppEnvironment& environment) {
  if (!isInside(path, environment.systemRoot + kCoreServices)) return true;
  return path.find("/System/Library/CoreServices/Applications") != std::string::npos ||
         path.find("Finder.app") != std::string::npos || path.find("AddPrinter.app") != std::string::npos;
}

void walkForBundles(const std::string& folder, int depth, const BundleScanContext& context,
                    std::set<std::string>& seen, std::vector<AppEntry>& out) {
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) return;
  std::vector<std::string> names;
  while (dirent* item = ::readdir(dir)) {
    std::string name = item->d_name;
    if (name.empty() || name[0] == '.') continue;
    if (item->d_type == DT_DIR || item->d_type == DT_LNK || item->d_type == DT_UNKNOWN || name.ends_with(".appexlist")) {
      names.push_back(std::move(name));
    }
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  for (const auto& name : names) {
    std::string path = folder + "/" + name;
    if (name.ends_with(".appexlist")) {
      if (!inSettingsLocation(path, context.environment) || isExcludedExtension(name)) continue;
      for (const auto& extension : extensionsOfAppexList(path)) {
        if (!seen.insert(extension).second) continue;
        if (auto entry = bundleApp(extension, context, /*namedBySettingsList=*/true)) out.push_back(std::move(*entry));
      }
      continue;
    }
    if (hasBundleSuffix(name)) {
      if (!seen.insert(path).second) continue;
      if (auto entry = bundleApp(path, context)) out.push_back(std::move(*entry));
      continue;
    }
    struct stat info;
    if (depth < kBundleSearchDepth && ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
      walkForBundles(path, depth + 1, context, seen, out);  // links to folders are not followed
    }
  }
}

}  // namespace

std::vector<std::string> settingsLocations(const AppEnvironment& environment) {
  const std::string& root = environment.systemRoot;
  return {root + "/Library/PreferencePanes", root + "/System/Library/ExtensionKit/Extensions",
          root + "/System/Applications/System Settings.app/Contents/PlugIns",
          root + "/System/Library/PrivateFrameworks/Settings.framework/PlugIns"};
}

std::vector<std::string> fixedApplicationLocations(const AppEnvironment& environment) {
  return {environment.systemRoot + kCoreServices, environment.systemRoot + kCoreServices + "/Applications"};
}

std::optional<AppEntry> appEntryOfDesktopEntry(const DesktopEntry& entry, const AppEnvironment& environment,
                                               const LastUsedRecords& lastUsed) {
  if (!entry.isApplication() || entry.hidden) return std::nullopt;
  AppCategory category;
  if (entry.isSettingsPanel()) {
    // Settings panels are hidden from menus but are what a user looks for
    // under "Settings"; the desktop and TryExec rules still hold.
    if (!showsIn(entry, environment.currentDesktops) || !tryExecFound(entry, environment.executableSearchPath)) {
      return std::nullopt;
    }
    category = AppCategory::venturaSettingsExtension;
  } else if (isShownInMenus(entry, environment.currentDesktops, environment.executableSearchPath)) {
    category = AppCategory::application;
  } else {
    return std::nullopt;
  }
  SupportedLanguage language = environment.language;
  std::vector<std::string> otherNames;
  if (!entry.genericName.in(language).empty()) otherNames.push_back(entry.genericName.in(language));
  for (const auto& keyword : entry.keywords.in(language)) otherNames.push_back(keyword);
  auto schemes = entry.urlSchemes();
  return makeAppEntry(entry.filePath, entry.desktopId, category, entry.name.in(language), otherNames,
                      lastUsed.lastUsed(entry),
                      schemes.empty() ? std::nullopt : std::optional<std::vector<std::string>>(std::move(schemes)));
}

std::vector<AppEntry> desktopEntryApps(const DesktopCatalogSnapshot& catalog, const AppEnvironment& environment,
                                       const LastUsedRecords& lastUsed) {
  std::vector<AppEntry> apps;
  apps.reserve(catalog.entries().size());
  for (const auto& entry : catalog.entries()) {
    if (auto app = appEntryOfDesktopEntry(entry, environment, lastUsed)) apps.push_back(std::move(*app));
  }
  return apps;
}

std::optional<AppEntry> bundleApp(const std::string& bundlePath, const BundleScanContext& context,
                                  bool namedBySettingsList) {
  std::string name = fileNameOf(bundlePath);
  bool isApplication = name.size() > 4 && name.ends_with(".app");
  bool inSettings = namedBySettingsList || inSettingsLocation(bundlePath, context.environment);
  if (!isApplication && !(inSettings && hasBundleSuffix(name))) return std::nullopt;
  if (!isApplication && isExcludedExtension(name)) return std::nullopt;
  if (!passesCoreServicesFilter(bundlePath, context.environment)) return std::nullopt;
  auto bundle = readBundle(bundlePath, context.environment.language);
  if (!bundle) return std::nullopt;
  if (isApplication) {
    return makeAppEntry(bundlePath, bundle->bundleIdentifier, AppCategory::application, bundle->displayName, {}, 0,
                        bundle->urlSchemes);
  }
  std::string shown = extensionDisplayName(context.extensionNames, name, context.environment.firstPreferredLanguage)
                          .value_or(bundle->displayName);
  return makeAppEntry(bundlePath, bundle->bundleIdentifier, AppCategory::venturaSettingsExtension, shown, {}, 0,
                      bundle->urlSchemes);
}

std::vector<AppEntry> bundleAppsBelow(const std::string& folder, const BundleScanContext& context) {
  std::vector<AppEntry> out;
  std::set<std::string> seen;
  if (hasBundleSuffix(fileNameOf(folder))) {
    if (auto entry = bundleApp(folder, context)) out.push_back(std::move(*entry));
    return out;
  }
  walkForBundles(folder, 1, context, seen, out);
  return out;
}

std::vector<AppEntry> bundleApps(const std::vector<std::string>& scopes, const BundleScanContext& context) {
  std::vector<std::string> locations = scopes;
  for (const auto& location : settingsLocations(context.environment)) locations.push_back(location);
  for (const auto& location : fixedApplicationLocations(context.environment)) locations.push_back(location);
  std::vector<AppEntry> out;
  std::set<std::string> seen;
  for (const auto& location : locations) {
    if (!isDirectory(location)) continue;  // a location that does not exist is skipped
    walkForBundles(location, 1, context, seen, out);
  }
  return out;
}

std::vector<AppEntry> emulatorApps(const AppEnvironment& environment) {
  std::vector<AppEntry> apps;
  for (const auto& device :
       listSimulators(environment.simulatorListCommand, environment.executableSearchPath)) {
    std::vector<std::string> other;
    if (!device.runtime.empty()) other.push_back(device.runtime);
    apps.push_back(makeAppEntry(device.path, kSimulatorApplicationIdentifier, AppCategory::xcodeSimulator,
                                device.name, other));
  }
  for (const auto& device : listAndroidVirtualDevices(environment.androidDeviceDirectories)) {
    apps.push_back(makeAppEntry(device.path, kAndroidEmulatorIdentifier, AppCategory::xcodeSimulator, device.name,
                                {device.identifier}));
  }
  return apps;
}

}  // namespace quorvi

// The sources of a full app scan, each a plain function over its inputs:
//  - desktop entries (the Linux applications) from a catalog snapshot:
//    entries a menu shows become applications; settings panels (GNOME's
//    X-GNOME-Settings-Panel entries and KDE's System Settings modules, which
//    menus hide) become settings items;
//  - bundles in the caller's scopes and the fixed locations: ".app" folders
//    anywhere, ".prefPane"/".appex" bundles and ".appexlist" files in the
//    settings locations (not those on the exclusion list); inside
//    CoreServices only its Applications folder, Finder and AddPrinter;
//  - device emulators.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/app_entry.h"
#include "apps/app_environment.h"
#include "apps/desktop_catalog.h"
#include "apps/last_used.h"
#include "apps/settings_extensions.h"

namespace quorvi {

// Folders below a scope that the bundle walk enters (a scope's own entries
// are depth 1).
inline constexpr int kBundleSearchDepth = 3;

// The fixed locations, below environment.systemRoot.
std::vector<std::string> settingsLocations(const AppEnvironment& environment);
std::vector<std::string> fixedApplicationLocations(const AppEnvironment& environment);

// Desktop entries as app entries, in catalog order (by desktop id).
std::vector<AppEntry> desktopEntryApps(const DesktopCatalogSnapshot& catalog, const AppEnvironment& environment,
                                       const LastUsedRecords& lastUsed);
// The entry of one desktop entry as the scan would make it; nothing when the
// scan leaves it out.
std::optional<AppEntry> appEntryOfDesktopEntry(const DesktopEntry& entry, const AppEnvironment& environment,
                                               const LastUsedRecords& lastUsed);

struct BundleScanContext {
  const AppEnvironment& environment;
  const std::vector<VenturaSystemExtensionLocalizedName>& extensionNames;
};

// Every bundle of the scopes and the fixed locations, each path once.
std::vector<AppEntry> bundleApps(const std::vector<std::string>& scopes, const BundleScanContext& context);
// The bundles found below one folder (itself included when it is a bundle),
// by the rules of the location it lies in.
std::vector<AppEntry> bundleAppsBelow(const std::string& folder, const BundleScanContext& context);
// The entry of one bundle by the rules of its location (or as a settings
// extension, for those an ".appexlist" names); nothing when those rules leave
// it out or it does not exist.
std::optional<AppEntry> bundleApp(const std::string& bundlePath, const BundleScanContext& context,
                                  bool namedBySettingsList = false);

std::vector<AppEntry> emulatorApps(const AppEnvironment& environment);

}  // namespace quorvi

// What other parts of the service may ask about one installed application
// (the attribute readers, for instance): its desktop file or bundle, its
// categories, version and when it was last used, read the way the app index
// reads them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/desktop_entry.h"
#include "apps/last_used.h"
#include "common/language.h"

namespace quorvi {

struct InstalledAppRecord {
  std::string path;              // the desktop file or the bundle folder
  std::string desktopId;         // "org.gnome.TextEditor.desktop"; empty for a bundle
  std::string bundleIdentifier;  // the desktop id, or the bundle's CFBundleIdentifier
  std::string name;              // in the requested language
  // Desktop entries: their Categories ("Utility", "TextEditor"); bundles:
  // their LSApplicationCategoryType when they declare one.
  std::vector<std::string> categories;
  // Bundles: CFBundleShortVersionString (else CFBundleVersion). Desktop
  // entries carry no application version (their Version key is the format's
  // version): empty.
  std::string version;
  double lastUsedTimestamp = 0;  // seconds since 1970; 0 when the desktop recorded nothing
};

// The record of the application at path: a ".desktop" file (read directly,
// its id taken from the shared catalog when it is installed there, else its
// file name) or a bundle folder. Nothing when the path is neither.
std::optional<InstalledAppRecord> installedAppRecord(const std::string& path, SupportedLanguage language);

// The desktop's last-used records for the user (GNOME Shell, KDE, the
// recently-used file), read through one process-wide reader that rereads a
// source only when its file changed.
LastUsedRecords currentLastUsedRecords();

}  // namespace quorvi

#include "apps/app_records.h"

#include "apps/app_environment.h"
#include "apps/bundle_reader.h"
#include "apps/desktop_catalog.h"

namespace quorvi {

LastUsedRecords currentLastUsedRecords() {
  static auto* reader = [] {
    AppEnvironment environment = AppEnvironment::standard();
    return new LastUsedReader(environment.gnomeApplicationStateFile, environment.kdeActivityDatabase,
                              environment.recentlyUsedFile);
  }();
  return reader->records();
}

std::optional<InstalledAppRecord> installedAppRecord(const std::string& path, SupportedLanguage language) {
  InstalledAppRecord record;
  record.path = path;
  if (path.ends_with(".desktop")) {
    const DesktopEntry* installed = DesktopCatalog::shared().currentSnapshot()->entryAtPath(path);
    std::string id = installed ? installed->desktopId : path.substr(path.rfind('/') + 1);
    auto entry = readDesktopEntry(path, id);
    if (!entry) return std::nullopt;
    record.desktopId = entry->desktopId;
    record.bundleIdentifier = entry->desktopId;
    record.name = entry->name.in(language);
    record.categories = entry->categories;
    record.lastUsedTimestamp = currentLastUsedRecords().lastUsed(*entry);
    return record;
  }
  auto bundle = readBundle(path, language);
  if (!bundle) return std::nullopt;
  record.bundleIdentifier = bundle->bundleIdentifier;
  record.name = bundle->displayName;
  if (!bundle->applicationCategory.empty()) record.categories.push_back(bundle->applicationCategory);
  record.version = bundle->version;
  return record;
}

}  // namespace quorvi

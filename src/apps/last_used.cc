#include "apps/last_used.h"

#include <glib.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "pinyin/utf8_text.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

constexpr std::size_t kStateFileCap = 16u << 20;
constexpr std::string_view kApplicationsScheme = "applications:";

void keepLatest(std::map<std::string, double>& times, std::string id, double time) {
  if (time <= 0) return;
  auto [it, inserted] = times.emplace(std::move(id), time);
  if (!inserted) it->second = std::max(it->second, time);
}

std::string fileNameOf(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// The names an entry may be recorded under, lower-cased.
std::vector<std::string> namesOfEntry(const DesktopEntry& entry) {
  std::string stem = lowercased(entry.idStem());
  std::vector<std::string> names = {stem, stem.substr(stem.rfind('.') + 1),
                                    lowercased(entry.name.in(SupportedLanguage::english))};
  if (auto program = programOfExec(entry.exec)) names.push_back(lowercased(fileNameOf(*program)));
  return names;
}

}  // namespace

double LastUsedRecords::lastUsed(const DesktopEntry& entry) const {
  double latest = 0;
  if (auto found = byDesktopId.find(entry.desktopId); found != byDesktopId.end()) latest = found->second;
  if (recentApplications.empty()) return latest;
  auto names = namesOfEntry(entry);
  for (const auto& recent : recentApplications) {
    if (recent.timestamp <= latest) continue;
    std::string name = lowercased(recent.name), program = lowercased(recent.program);
    bool matches = std::any_of(names.begin(), names.end(), [&](const std::string& candidate) {
      return !candidate.empty() && (candidate == name || candidate == program);
    });
    if (matches) latest = recent.timestamp;
  }
  return latest;
}

std::map<std::string, double> parseGnomeApplicationState(std::string_view xml) {
  std::map<std::string, double> times;
  GMarkupParser parser{};
  parser.start_element = [](GMarkupParseContext*, const gchar* element, const gchar** names, const gchar** values,
                            gpointer data, GError**) {
    if (std::string_view(element) != "application") return;
    const char* id = nullptr;
    double lastSeen = 0;
    for (int i = 0; names[i]; ++i) {
      if (std::string_view(names[i]) == "id") id = values[i];
      if (std::string_view(names[i]) == "last-seen") lastSeen = g_ascii_strtod(values[i], nullptr);
    }
    if (id && *id) keepLatest(*static_cast<std::map<std::string, double>*>(data), id, lastSeen);
  };
  GMarkupParseContext* context = g_markup_parse_context_new(&parser, GMarkupParseFlags(0), &times, nullptr);
  g_markup_parse_context_parse(context, xml.data(), gssize(xml.size()), nullptr);
  g_markup_parse_context_free(context);  // a document broken half way keeps what came before
  return times;
}

std::map<std::string, double> readKdeResourceScores(const std::string& databasePath) {
  std::map<std::string, double> times;
  int fd = openRegularFile(databasePath);  // a FIFO or device in its place is refused without blocking
  if (fd < 0) return times;
  ::close(fd);
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(databasePath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close_v2(db);
    return times;
  }
  sqlite3_busy_timeout(db, 200);
  sqlite3_stmt* statement = nullptr;
  const char* query =
      "SELECT targettedResource, MAX(lastUpdate) FROM ResourceScoreCache "
      "WHERE targettedResource LIKE 'applications:%' GROUP BY targettedResource";
  if (sqlite3_prepare_v2(db, query, -1, &statement, nullptr) == SQLITE_OK) {
    while (sqlite3_step(statement) == SQLITE_ROW) {
      const unsigned char* resource = sqlite3_column_text(statement, 0);
      if (!resource) continue;
      std::string id = reinterpret_cast<const char*>(resource);
      id = id.substr(kApplicationsScheme.size());
      if (!id.ends_with(".desktop")) id += ".desktop";
      keepLatest(times, std::move(id), sqlite3_column_double(statement, 1));
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close_v2(db);
  return times;
}

std::vector<LastUsedRecords::RecentApplication> parseRecentlyUsedApplications(std::string_view xbel) {
  std::vector<LastUsedRecords::RecentApplication> applications;
  std::unique_ptr<GBookmarkFile, decltype(&g_bookmark_file_free)> bookmarks(g_bookmark_file_new(),
                                                                           &g_bookmark_file_free);
  if (!g_bookmark_file_load_from_data(bookmarks.get(), xbel.data(), xbel.size(), nullptr)) return applications;
  std::map<std::pair<std::string, std::string>, double> latest;
  gsize uriCount = 0;
  gchar** uris = g_bookmark_file_get_uris(bookmarks.get(), &uriCount);
  for (gsize i = 0; i < uriCount; ++i) {
    gsize appCount = 0;
    gchar** names = g_bookmark_file_get_applications(bookmarks.get(), uris[i], &appCount, nullptr);
    for (gsize j = 0; names && j < appCount; ++j) {
      gchar* exec = nullptr;
      GDateTime* stamp = nullptr;
      if (g_bookmark_file_get_application_info(bookmarks.get(), uris[i], names[j], &exec, nullptr, &stamp,
                                               nullptr)) {
        std::string program = exec ? programOfExec(exec).value_or("") : "";
        double time = stamp ? double(g_date_time_to_unix(stamp)) : 0;
        auto& slot = latest[{names[j], fileNameOf(program)}];
        slot = std::max(slot, time);
      }
      g_free(exec);
      // The stamp belongs to the bookmark file.
    }
    g_strfreev(names);
  }
  g_strfreev(uris);
  for (const auto& [key, time] : latest) {
    if (time > 0) applications.push_back({key.first, key.second, time});
  }
  return applications;
}

LastUsedReader::LastUsedReader(std::string gnomeStateFile, std::string kdeDatabase, std::string recentlyUsedFile) {
  gnome_.path = std::move(gnomeStateFile);
  kde_.path = std::move(kdeDatabase);
  recent_.path = std::move(recentlyUsedFile);
}

bool LastUsedReader::Source::changed() {
  struct stat info {};
  bool exists = !path.empty() && ::stat(path.c_str(), &info) == 0;
  int64_t time = exists ? int64_t(info.st_mtim.tv_sec) * 1000000000LL + info.st_mtim.tv_nsec : -1;
  off_t length = exists ? info.st_size : -1;
  if (info.st_dev == device && info.st_ino == inode && length == size && time == modified) return false;
  device = info.st_dev;
  inode = info.st_ino;
  size = length;
  modified = time;
  return true;
}

LastUsedRecords LastUsedReader::records() {
  std::lock_guard guard(lock_);
  if (gnome_.changed()) {
    auto bytes = gnome_.size >= 0 ? readRegularFile(gnome_.path, kStateFileCap) : std::nullopt;
    gnomeRecords_.byDesktopId = bytes ? parseGnomeApplicationState(*bytes) : std::map<std::string, double>{};
  }
  if (kde_.changed()) {
    kdeRecords_.byDesktopId = kde_.size >= 0 ? readKdeResourceScores(kde_.path) : std::map<std::string, double>{};
  }
  if (recent_.changed()) {
    auto bytes = recent_.size >= 0 ? readRegularFile(recent_.path, kStateFileCap) : std::nullopt;
    recentRecords_.recentApplications =
        bytes ? parseRecentlyUsedApplications(*bytes) : std::vector<LastUsedRecords::RecentApplication>{};
  }
  LastUsedRecords combined = gnomeRecords_;
  for (const auto& [id, time] : kdeRecords_.byDesktopId) keepLatest(combined.byDesktopId, id, time);
  combined.recentApplications = recentRecords_.recentApplications;
  return combined;
}

}  // namespace quorvi

#include "recent/recent_files.h"

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#include <glib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <set>

#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

// A recently-used file grows with every file opened; GTK trims it, but a
// broken writer might not. Past this it is not read at all.
constexpr std::size_t kRecentlyUsedCap = 64u << 20;

double secondsOf(GDateTime* time) { return time ? static_cast<double>(g_date_time_to_unix(time)) : 0; }

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

// "/usr/bin/gedit %u" → "gedit". GTK writes the whole command quoted once
// more ("'gedit %u'"), so a first word holding a space is read again.
std::string programOfCommand(const std::string& exec) {
  std::string program = exec;
  for (int round = 0; round < 2 && program.find_first_of(" '\"\\") != std::string::npos; ++round) {
    gint argc = 0;
    gchar** argv = nullptr;
    std::string first;
    if (g_shell_parse_argv(program.c_str(), &argc, &argv, nullptr) && argc > 0) first = argv[0];
    g_strfreev(argv);
    if (first.empty()) break;
    program = first;
  }
  std::size_t slash = program.rfind('/');
  return slash == std::string::npos ? program : program.substr(slash + 1);
}

std::string nameOfPath(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// What an application id may appear as in the list.
std::set<std::string> namesOfApplication(const std::string& applicationID) {
  std::set<std::string> names;
  std::string id = applicationID;
  names.insert(lowered(id));
  if (id.size() > 8 && id.ends_with(".desktop")) id.resize(id.size() - 8);
  if (id.empty()) return names;
  names.insert(lowered(id));
  if (id.find('/') != std::string::npos || id.find("..") != std::string::npos) return names;
  GDesktopAppInfo* info = g_desktop_app_info_new((id + ".desktop").c_str());
  if (info) {
    if (const char* name = g_app_info_get_name(G_APP_INFO(info))) names.insert(lowered(name));
    if (const char* exec = g_app_info_get_executable(G_APP_INFO(info))) names.insert(lowered(nameOfPath(exec)));
    g_object_unref(info);
  }
  return names;
}

}  // namespace

double RecentBookmark::lastUsed() const {
  double last = std::max({added, modified, visited});
  for (const auto& app : applications) last = std::max(last, app.timestamp);
  return last;
}

Json RecentDocument::toJson() const {
  Json json = Json::object();
  json["path"] = path;
  json["name"] = name;
  json["date"] = referenceDateFromUnix(date);
  return json;
}

std::optional<std::vector<RecentBookmark>> parseRecentlyUsed(std::string_view bytes) {
  GBookmarkFile* file = g_bookmark_file_new();
  if (!g_bookmark_file_load_from_data(file, bytes.data(), bytes.size(), nullptr)) {
    g_bookmark_file_free(file);
    return std::nullopt;
  }
  std::vector<RecentBookmark> out;
  gsize count = 0;
  gchar** uris = g_bookmark_file_get_uris(file, &count);
  out.reserve(count);
  for (gsize i = 0; i < count; ++i) {
    RecentBookmark bookmark;
    bookmark.uri = uris[i];
    if (gchar* path = g_filename_from_uri(uris[i], nullptr, nullptr)) {
      bookmark.path = path;
      g_free(path);
    }
    if (gchar* mime = g_bookmark_file_get_mime_type(file, uris[i], nullptr)) {
      bookmark.mimeType = mime;
      g_free(mime);
    }
    bookmark.added = secondsOf(g_bookmark_file_get_added_date_time(file, uris[i], nullptr));
    bookmark.modified = secondsOf(g_bookmark_file_get_modified_date_time(file, uris[i], nullptr));
    bookmark.visited = secondsOf(g_bookmark_file_get_visited_date_time(file, uris[i], nullptr));
    gsize apps = 0;
    gchar** names = g_bookmark_file_get_applications(file, uris[i], &apps, nullptr);
    for (gsize a = 0; a < apps; ++a) {
      RecentBookmark::Application app;
      app.name = names[a];
      char* exec = nullptr;
      unsigned int used = 0;
      GDateTime* stamp = nullptr;
      if (g_bookmark_file_get_application_info(file, uris[i], names[a], &exec, &used, &stamp, nullptr)) {
        app.exec = exec ? exec : "";
        app.count = static_cast<int>(used);
        app.timestamp = secondsOf(stamp);
      }
      g_free(exec);
      bookmark.applications.push_back(std::move(app));
    }
    g_strfreev(names);
    out.push_back(std::move(bookmark));
  }
  g_strfreev(uris);
  g_bookmark_file_free(file);
  return out;
}

struct RecentFiles::Loaded {
  struct stat identity {};
  bool present = false;
  Bookmarks bookmarks = std::make_shared<const std::vector<RecentBookmark>>();
  std::unordered_map<std::string, double> lastUsedByPath;
};

RecentFiles& RecentFiles::shared() {
  static auto* recent = new RecentFiles(xdgDataHome() + "/recently-used.xbel");
  return *recent;
}

RecentFiles::RecentFiles(std::string path) : path_(std::move(path)) {}

std::shared_ptr<const RecentFiles::Loaded> RecentFiles::load() {
  struct stat now {};
  bool present = ::stat(path_.c_str(), &now) == 0;
  std::lock_guard<std::mutex> lock(mutex_);
  auto same = [&](const Loaded& loaded) {
    if (loaded.present != present) return false;
    if (!present) return true;
    const struct stat& was = loaded.identity;
    return was.st_ino == now.st_ino && was.st_dev == now.st_dev && was.st_size == now.st_size &&
           was.st_mtim.tv_sec == now.st_mtim.tv_sec && was.st_mtim.tv_nsec == now.st_mtim.tv_nsec;
  };
  if (loaded_ && same(*loaded_)) return loaded_;
  auto loaded = std::make_shared<Loaded>();
  loaded->present = present;
  loaded->identity = now;
  if (present) {
    if (auto bytes = readRegularFile(path_, kRecentlyUsedCap)) {
      if (auto parsed = parseRecentlyUsed(*bytes)) {
        for (const auto& bookmark : *parsed) {
          if (bookmark.path.empty()) continue;
          double& last = loaded->lastUsedByPath[bookmark.path];
          last = std::max(last, bookmark.lastUsed());
        }
        loaded->bookmarks = std::make_shared<const std::vector<RecentBookmark>>(std::move(*parsed));
      }
    }
  }
  loaded_ = loaded;
  return loaded_;
}

RecentFiles::Bookmarks RecentFiles::bookmarks() { return load()->bookmarks; }

std::optional<double> RecentFiles::lastUsedOf(const std::string& path) {
  auto loaded = load();
  auto found = loaded->lastUsedByPath.find(path);
  if (found == loaded->lastUsedByPath.end() || found->second <= 0) return std::nullopt;
  return found->second;
}

std::vector<RecentDocument> RecentFiles::documentsOf(const std::string& applicationID) {
  std::vector<RecentDocument> documents;
  if (applicationID.empty()) return documents;
  auto names = namesOfApplication(applicationID);
  auto loaded = load();
  for (const auto& bookmark : *loaded->bookmarks) {
    if (bookmark.path.empty()) continue;
    double used = -1;
    for (const auto& app : bookmark.applications) {
      bool matches = names.count(lowered(app.name)) || (!app.exec.empty() && names.count(lowered(programOfCommand(app.exec))));
      if (matches) used = std::max(used, app.timestamp > 0 ? app.timestamp : bookmark.lastUsed());
    }
    if (used < 0) continue;
    struct stat info {};
    if (::stat(bookmark.path.c_str(), &info) != 0) continue;
    documents.push_back({bookmark.path, nameOfPath(bookmark.path), used});
  }
  std::stable_sort(documents.begin(), documents.end(),
                   [](const RecentDocument& a, const RecentDocument& b) { return a.date > b.date; });
  return documents;
}

}  // namespace quorvi

// RecentFiles: the desktop's list of recently used files, the freedesktop
// "recently-used.xbel" ($XDG_DATA_HOME/recently-used.xbel) that GTK, KDE and
// most editors write: one bookmark per file with the dates it was added,
// modified and visited, and the applications that used it (name, command,
// count, time). Read through GLib's GBookmarkFile, never by hand; re-read
// when the file changes (its size, time or inode), otherwise served from
// memory.
//
// It answers the last use of a path (for the metadata queries) and the
// recent documents of one application.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/json.h"

namespace quorvi {

struct RecentBookmark {
  struct Application {
    std::string name;  // as the application registered itself ("gedit", "Text Editor")
    std::string exec;  // its command ("gedit %u")
    int count = 0;
    double timestamp = 0;  // seconds since 1970 of its last use of the file
  };
  std::string uri;
  std::string path;  // for file:// URIs, percent-decoded; else empty
  std::string mimeType;
  double added = 0, modified = 0, visited = 0;  // seconds since 1970, 0 when absent
  std::vector<Application> applications;

  // The most recent of the bookmark's dates and its applications' times.
  double lastUsed() const;
};

// One entry of the reply of "recent documents of an application":
//   {"path": "/home/u/a.txt", "name": "a.txt", "date": 7.3e8}
// `date` is the application's last use of the file in the reply encoder's
// date form (seconds since 2001-01-01).
struct RecentDocument {
  std::string path;
  std::string name;
  double date = 0;  // seconds since 1970
  Json toJson() const;
};

// Parses the bytes of a recently-used file; nullopt when GLib refuses them.
std::optional<std::vector<RecentBookmark>> parseRecentlyUsed(std::string_view bytes);

class RecentFiles {
 public:
  // $XDG_DATA_HOME/recently-used.xbel.
  static RecentFiles& shared();
  explicit RecentFiles(std::string path);

  using Bookmarks = std::shared_ptr<const std::vector<RecentBookmark>>;
  // The bookmarks as the file holds them now (empty when it is missing or
  // unreadable).
  Bookmarks bookmarks();
  // The last use the list records for a local path, if any.
  std::optional<double> lastUsedOf(const std::string& path);

  // Documents an application used, most recent first, existing local files
  // only. `applicationID` is a desktop file id ("org.gnome.gedit" with or
  // without ".desktop"), a program ("gedit") or an application name
  // ("Text Editor"); letters compare without case. The desktop entry of an
  // id, when installed, adds its program and its name to what matches.
  std::vector<RecentDocument> documentsOf(const std::string& applicationID);

 private:
  struct Loaded;
  std::shared_ptr<const Loaded> load();

  std::string path_;
  std::mutex mutex_;
  std::shared_ptr<const Loaded> loaded_;
};

}  // namespace quorvi

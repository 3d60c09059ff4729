// When the user last started each application, from what the desktop
// records (the most recent of the sources found, 0 when none knows):
//  - GNOME Shell's application state file
//    ($XDG_DATA_HOME/gnome-shell/application_state: "last-seen" per desktop id);
//  - KDE's activity manager resource scores
//    ($XDG_DATA_HOME/kactivitymanagerd/resources/database, SQLite:
//    "lastUpdate" of "applications:ID" resources);
//  - the recently-used file ($XDG_DATA_HOME/recently-used.xbel: each
//    document's applications with the time they last opened it), matched to
//    an entry by its id, name or program.
// Each source is read again only when its file changed.
#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "apps/desktop_entry.h"

namespace quorvi {

struct LastUsedRecords {
  std::map<std::string, double> byDesktopId;  // seconds since 1970
  struct RecentApplication {
    std::string name;     // as the recently-used file names the application
    std::string program;  // the file name of its Exec program
    double timestamp = 0;
  };
  std::vector<RecentApplication> recentApplications;

  // The most recent time any source gives the entry; 0 when none.
  double lastUsed(const DesktopEntry& entry) const;
};

// Parsers of the three sources (exposed for tests).
std::map<std::string, double> parseGnomeApplicationState(std::string_view xml);
std::map<std::string, double> readKdeResourceScores(const std::string& databasePath);
std::vector<LastUsedRecords::RecentApplication> parseRecentlyUsedApplications(std::string_view xbel);

class LastUsedReader {
 public:
  LastUsedReader(std::string gnomeStateFile, std::string kdeDatabase, std::string recentlyUsedFile);
  // Thread-safe; files are read again only when changed.
  LastUsedRecords records();

 private:
  struct Source {
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    int64_t modified = -1;
    bool changed();  // and remembers the new identity
  };
  std::mutex lock_;
  Source gnome_, kde_, recent_;
  LastUsedRecords gnomeRecords_, kdeRecords_, recentRecords_;
};

}  // namespace quorvi

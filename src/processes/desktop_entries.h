// The installed applications of the Linux desktop, read from the XDG desktop
// entries (applications/*.desktop under $XDG_DATA_HOME and $XDG_DATA_DIRS).
// The process list uses them to tell a user's regular applications from the
// other processes: a process is a running application when its executable
// is the program that an entry's Exec line starts.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/language.h"

namespace quorvi {

struct DesktopApplication {
  std::string desktopId;        // file id, e.g. "org.gnome.gedit.desktop"
  std::string filePath;         // the .desktop file
  std::string name;             // Name in the user's language
  std::string program;          // absolute executable of Exec, symbolic links resolved
  std::string programFileName;  // its last component
  bool isFileManager = false;   // never offered for quitting
};

// Keys and values of the [Desktop Entry] group, values unescaped (\s \n \t
// \r \\); other groups, comments and malformed lines are passed over.
std::map<std::string, std::string> readDesktopEntryGroup(std::string_view text);

// The program an Exec value starts: its first word, unquoted, after any
// leading "env" and NAME=value words. Nothing when there is none.
std::optional<std::string> programOfExec(std::string_view exec);

// Name[ll_CC], then Name[ll], then Name, for the language.
std::string localizedName(const std::map<std::string, std::string>& keys, SupportedLanguage language);

// An application the process list can recognise: shown in menus (not
// Hidden, not NoDisplay), not run in a terminal, of Type Application, with
// an Exec program that resolves to an executable that is not merely an
// interpreter or sandbox launcher (those run many unrelated programs).
std::optional<DesktopApplication> desktopApplicationFromText(std::string_view text, const std::string& desktopId,
                                                             const std::string& filePath, SupportedLanguage language);

// The applications folders in order of precedence: $XDG_DATA_HOME's first.
std::vector<std::string> applicationDirectories();

// The scanned entries, kept until one of the folders changes (their
// modification times are checked on each use), so that a request costs a
// few stat calls rather than a parse of every entry.
class DesktopApplicationCatalog {
 public:
  static DesktopApplicationCatalog& shared();
  explicit DesktopApplicationCatalog(std::vector<std::string> directories);

  // Entries by desktop id, an id found in an earlier folder hiding later ones.
  std::vector<DesktopApplication> applications(SupportedLanguage language);

 private:
  using Signature = std::vector<std::pair<std::string, long long>>;
  bool isCurrent(SupportedLanguage language) const;
  void rescan(SupportedLanguage language);

  std::vector<std::string> directories_;
  std::mutex lock_;
  bool scanned_ = false;
  SupportedLanguage language_ = SupportedLanguage::english;
  Signature signature_;
  std::vector<DesktopApplication> applications_;
};

}  // namespace quorvi

// The installed applications as the process list recognises them, derived
// from the shared desktop catalog (apps/desktop_catalog.h), so that the app
// index and the process list agree on what an application is: an entry a
// menu shows (Type Application, not Hidden or NoDisplay, for this desktop,
// TryExec found), not run in a terminal, that either
//  - starts a program that resolves to an executable which is not merely an
//    interpreter or launcher (those run many unrelated programs; versioned
//    ones such as "python3.11" count, "luanti" or "rubyripper" do not), or
//  - is a sandboxed application (Flatpak, Snap), whose processes carry the
//    application's id in their control group instead.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/desktop_catalog.h"
#include "common/language.h"

namespace quorvi {

struct DesktopApplication {
  std::string desktopId;        // file id, e.g. "org.gnome.gedit.desktop"
  std::string filePath;         // the .desktop file
  std::string name;             // Name in the user's language
  std::string program;          // absolute executable of Exec, symbolic links resolved; empty for a sandboxed one
  std::string programFileName;  // its last component
  bool isFileManager = false;   // never offered for quitting
  // "flatpak:APP-ID" or "snap:SNAP_APP" for a sandboxed application (see
  // sandboxKeyOfControlGroup); empty otherwise.
  std::string sandboxKey;
  int execArgumentCount = 0;    // words of Exec after the program, field codes not counted
};

// Programs that run other programs.
bool isGenericLauncher(std::string_view programFileName);

// The application an entry stands for in the process list, or nothing.
std::optional<DesktopApplication> desktopApplicationOf(const DesktopEntry& entry, SupportedLanguage language,
                                                       const std::vector<std::string>& currentDesktops,
                                                       const std::vector<std::string>& searchPath);

// The sandbox key of a process from its /proc/PID/cgroup text: a Flatpak
// application runs in "app-flatpak-APP-ID-NUMBER.scope", a Snap one in
// "snap.SNAP.APP-UUID.scope" ("snap:SNAP_APP", its desktop file's stem).
std::optional<std::string> sandboxKeyOfControlGroup(std::string_view cgroupText);

// The catalog's applications for the process list, derived once per catalog
// snapshot and language. Never waits for a refresh of the catalog: a change
// noticed on the way (a folder's time moved) is read in the background and
// seen by a later request.
class DesktopApplicationCatalog {
 public:
  static DesktopApplicationCatalog& shared();
  DesktopApplicationCatalog(DesktopCatalog& catalog, std::vector<std::string> currentDesktops,
                            std::vector<std::string> searchPath);

  // Sorted so that, of several entries launching one program, the preferred
  // comes first: the entry named after the program, then the one with the
  // fewest Exec arguments, then the smallest desktop id. The choice never
  // depends on the order of files in their folders.
  std::vector<DesktopApplication> applications(SupportedLanguage language);
  DesktopCatalog& catalog() { return catalog_; }

 private:
  DesktopCatalog& catalog_;
  std::vector<std::string> currentDesktops_;
  std::vector<std::string> searchPath_;
  std::mutex lock_;  // guards the derived list below (a short copy)
  DesktopCatalogSnapshotRef derivedFrom_;
  SupportedLanguage derivedLanguage_ = SupportedLanguage::english;
  std::vector<DesktopApplication> applications_;
};

}  // namespace quorvi

// AppEnvironment: what the app index takes from the user's session and the
// system it runs on -- where desktop entries live, which desktop is running,
// the executable search path, where device emulators keep their devices and
// the user's languages. The service reads it once from the process
// environment; tests build one over temporary folders.
#pragma once

#include <string>
#include <vector>

#include "common/language.h"

namespace quorvi {

struct AppEnvironment {
  std::string homeDirectory;
  std::string dataHome;                            // $XDG_DATA_HOME
  std::vector<std::string> dataDirs;               // $XDG_DATA_DIRS, then sandboxed-app exports it lacks
  std::vector<std::string> currentDesktops;        // $XDG_CURRENT_DESKTOP, split at ':'
  std::vector<std::string> executableSearchPath;   // $PATH, for TryExec
  // Prefix of the fixed bundle locations ("/Library/PreferencePanes", ...):
  // empty on a real system, a temporary folder in tests.
  std::string systemRoot;
  std::vector<std::string> androidDeviceDirectories;  // where virtual devices are kept
  // The device-simulator listing, run through /bin/sh when its tool is on
  // the search path; empty: none is run.
  std::string simulatorListCommand = "xcrun simctl list -j devices available";
  std::string firstPreferredLanguage;   // the first system language, e.g. "zh-Hans-CN"
  SupportedLanguage language = SupportedLanguage::english;  // for names of desktop entries
  std::string resourceDirectory;        // settings-extension names
  // Files where the desktop records when applications were last used; empty
  // members are not read (see last_used.h).
  std::string gnomeApplicationStateFile;
  std::string kdeActivityDatabase;
  std::string recentlyUsedFile;

  // From the process environment and the service's settings.
  static AppEnvironment standard();
  // Everything below one folder: data in root/share, home in root/home, no
  // desktop, no emulators, language english (tests start from this).
  static AppEnvironment isolated(const std::string& root);

  // The folders of desktop entries in order of precedence: the data home's
  // "applications" first, then each data folder's.
  std::vector<std::string> applicationDirectories() const;
  // The data folders of sandboxed applications (Flatpak's user and system
  // exports, Snap's desktop folder) appended to dataDirs when missing: a
  // service started by the bus may not inherit the session's variables.
  static std::vector<std::string> withSandboxExports(std::vector<std::string> dataDirs, const std::string& dataHome);
};

}  // namespace quorvi

#include "apps/app_environment.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "platform/paths.h"

namespace quorvi {

namespace {

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  std::stringstream stream(text);
  for (std::string piece; std::getline(stream, piece, separator);) {
    if (!piece.empty()) pieces.push_back(piece);
  }
  return pieces;
}

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

std::vector<std::string> AppEnvironment::withSandboxExports(std::vector<std::string> dataDirs,
                                                            const std::string& dataHome) {
  for (auto& dir : dataDirs) dir = withoutTrailingSlashes(dir);
  for (const std::string& exported :
       {dataHome + "/flatpak/exports/share", std::string("/var/lib/flatpak/exports/share"),
        std::string("/var/lib/snapd/desktop")}) {
    if (std::find(dataDirs.begin(), dataDirs.end(), exported) == dataDirs.end()) dataDirs.push_back(exported);
  }
  return dataDirs;
}

AppEnvironment AppEnvironment::standard() {
  AppEnvironment environment;
  environment.homeDirectory = quorvi::homeDirectory();
  environment.dataHome = withoutTrailingSlashes(xdgDataHome());
  environment.dataDirs = withSandboxExports(xdgDataDirs(), environment.dataHome);
  environment.currentDesktops = split(environmentValue("XDG_CURRENT_DESKTOP"), ':');
  std::string path = environmentValue("PATH");
  environment.executableSearchPath = split(path.empty() ? "/usr/local/bin:/usr/bin:/bin" : path, ':');
  if (std::string avd = environmentValue("ANDROID_AVD_HOME"); !avd.empty()) {
    environment.androidDeviceDirectories.push_back(avd);
  } else if (std::string user = environmentValue("ANDROID_USER_HOME"); !user.empty()) {
    environment.androidDeviceDirectories.push_back(user + "/avd");
  } else {
    environment.androidDeviceDirectories.push_back(environment.homeDirectory + "/.android/avd");
  }
  auto languages = Language::systemLanguagesFromEnvironment();
  environment.firstPreferredLanguage = languages.empty() ? "" : languages.front();
  environment.language = Language::shared().preferredLanguage();
  environment.resourceDirectory = quorvi::resourceDirectory();
  environment.gnomeApplicationStateFile = environment.dataHome + "/gnome-shell/application_state";
  environment.kdeActivityDatabase = environment.dataHome + "/kactivitymanagerd/resources/database";
  environment.recentlyUsedFile = environment.dataHome + "/recently-used.xbel";
  return environment;
}

AppEnvironment AppEnvironment::isolated(const std::string& root) {
  AppEnvironment environment;
  environment.homeDirectory = root + "/home";
  environment.dataHome = root + "/home/.local/share";
  environment.dataDirs = {root + "/share"};
  environment.executableSearchPath = {"/usr/local/bin", "/usr/bin", "/bin"};
  environment.systemRoot = root + "/system";
  environment.simulatorListCommand.clear();
  environment.resourceDirectory = root + "/resources";
  return environment;
}

std::vector<std::string> AppEnvironment::applicationDirectories() const {
  std::vector<std::string> directories = {dataHome + "/applications"};
  for (const auto& dir : dataDirs) {
    std::string applications = dir + "/applications";
    if (std::find(directories.begin(), directories.end(), applications) == directories.end()) {
      directories.push_back(applications);
    }
  }
  return directories;
}

}  // namespace quorvi

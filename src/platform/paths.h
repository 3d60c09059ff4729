// Where things live on this system: the user's home and XDG folders, the
// service's resources, and small path utilities.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quorvi {

std::string homeDirectory();
std::string xdgConfigHome();  // $XDG_CONFIG_HOME or ~/.config
std::string xdgDataHome();    // $XDG_DATA_HOME or ~/.local/share
std::string xdgStateHome();   // $XDG_STATE_HOME or ~/.local/state
std::vector<std::string> xdgDataDirs();  // $XDG_DATA_DIRS or /usr/local/share:/usr/share

// "~" and "~/x" become the home folder and a path inside it; others unchanged.
std::string expandTilde(const std::string& path);
// A "file://" URL (percent-decoded) or an absolute path; nullopt otherwise.
std::optional<std::string> pathFromFileURL(const std::string& urlOrPath);

// The folder of the running executable ("/usr/bin" for /usr/bin/quorvifind).
std::string executableDirectory();
// The service's resources: $QUORVI_RESOURCE_DIR, else <exe>/../share/quorvifind
// when installed, else the source tree's resources folder.
std::string resourceDirectory();

// Creates the folders leading to path (not path itself). False on failure.
bool makeParentDirectories(const std::string& path);

}  // namespace quorvi

#include "platform/paths.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace quorvi {

namespace {

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string homeDirectory() {
  std::string home = env("HOME");
  if (!home.empty()) return home;
  if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return "/";
}

std::string xdgConfigHome() {
  std::string value = env("XDG_CONFIG_HOME");
  return value.starts_with("/") ? value : homeDirectory() + "/.config";
}

std::string xdgDataHome() {
  std::string value = env("XDG_DATA_HOME");
  return value.starts_with("/") ? value : homeDirectory() + "/.local/share";
}

std::string xdgStateHome() {
  std::string value = env("XDG_STATE_HOME");
  return value.starts_with("/") ? value : homeDirectory() + "/.local/state";
}

std::vector<std::string> xdgDataDirs() {
  std::string value = env("XDG_DATA_DIRS");
  if (value.empty()) value = "/usr/local/share:/usr/share";
  std::vector<std::string> dirs;
  std::stringstream stream(value);
  for (std::string dir; std::getline(stream, dir, ':');) {
    if (dir.starts_with("/")) dirs.push_back(dir);
  }
  return dirs;
}

std::string expandTilde(const std::string& path) {
  if (path == "~") return homeDirectory();
  if (path.starts_with("~/")) return homeDirectory() + path.substr(1);
  return path;
}

std::optional<std::string> pathFromFileURL(const std::string& urlOrPath) {
  if (urlOrPath.starts_with("/")) return urlOrPath;
  static const std::string scheme = "file://";
  if (!urlOrPath.starts_with(scheme)) return std::nullopt;
  std::string rest = urlOrPath.substr(scheme.size());
  if (rest.starts_with("localhost/")) rest = rest.substr(9);
  if (!rest.starts_with("/")) return std::nullopt;
  std::string path;
  for (std::size_t i = 0; i < rest.size(); ++i) {
    if (rest[i] == '%' && i + 2 < rest.size() && hexValue(rest[i + 1]) >= 0 && hexValue(rest[i + 2]) >= 0) {
      path += char(hexValue(rest[i + 1]) * 16 + hexValue(rest[i + 2]));
      i += 2;
    } else {
      path += rest[i];
    }
  }
  return path;
}

std::string executableDirectory() {
  std::error_code error;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string() : exe.parent_path().string();
}

std::string resourceDirectory() {
  if (std::string dir = env("QUORVI_RESOURCE_DIR"); !dir.empty()) return dir;
  std::string installed = executableDirectory() + "/../share/quorvifind";
  if (isDirectory(installed)) return installed;
  return QUORVI_SOURCE_RESOURCE_DIR;
}

bool makeParentDirectories(const std::string& path) {
  auto parent = std::filesystem::path(path).parent_path();
  if (parent.empty()) return true;
  std::error_code error;
  std::filesystem::create_directories(parent, error);
  return !error;
}

}  // namespace quorvi

#include "spotlight/attributes_reader.h"

#include <dirent.h>
#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <unordered_map>

#include "platform/paths.h"
#include "platform/safe_file.h"
#include "recent/recent_files.h"
#include "spotlight/attribute_format.h"
#include "spotlight/content_types.h"
#include "spotlight/file_times.h"

namespace quorvi {

namespace {

double nowSeconds() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

std::string nameOf(const std::string& path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Times of what the path names, links followed (a link to a document
// describes the document).
FileTimes targetTimesOf(const std::string& path) {
  char resolved[PATH_MAX];
  if (::realpath(path.c_str(), resolved)) return fileTimesOf(resolved);
  return fileTimesOf(path);
}

std::string mimeTypeOfItem(const std::string& path, const FileTimes& times) {
  if (times.isDirectory) return "inode/directory";
  if (!times.isRegular) {
    struct stat info;
    if (::stat(path.c_str(), &info) == 0) {
      if (S_ISFIFO(info.st_mode)) return "inode/fifo";
      if (S_ISCHR(info.st_mode)) return "inode/chardevice";
      if (S_ISBLK(info.st_mode)) return "inode/blockdevice";
      if (S_ISSOCK(info.st_mode)) return "inode/socket";
    }
  }
  std::string sample;
  int fd = openRegularFile(path);
  if (fd >= 0) {
    char buffer[4096];
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) sample.assign(buffer, static_cast<std::size_t>(n));
    ::close(fd);
  }
  return mimeTypeOfFile(nameOf(path), sample);
}

// --- dpkg ---

struct DpkgDatabase {
  std::unordered_map<std::string, std::string> ownerOfDesktopFile;  // path → package
  std::unordered_map<std::string, PackageInfo> packages;
};

// The part of dpkg's database the readers need, read once per directory:
// owners of desktop entries (from info/*.list) and installed packages'
// versions and sizes (from status).
const DpkgDatabase& dpkgDatabase(const std::string& directory) {
  static std::mutex mutex;
  static auto* databases = new std::map<std::string, DpkgDatabase>;
  std::lock_guard<std::mutex> lock(mutex);
  auto found = databases->find(directory);
  if (found != databases->end()) return found->second;
  DpkgDatabase& database = (*databases)[directory];
  if (DIR* dir = ::opendir((directory + "/info").c_str())) {
    while (dirent* entry = ::readdir(dir)) {
      std::string name = entry->d_name;
      if (!name.ends_with(".list")) continue;
      std::string package = name.substr(0, name.size() - 5);
      package = package.substr(0, package.find(':'));
      auto list = readRegularFile(directory + "/info/" + name, 64u << 20);
      if (!list) continue;
      std::size_t at = 0;
      while (at < list->size()) {
        std::size_t end = list->find('\n', at);
        if (end == std::string::npos) end = list->size();
        std::string_view line(list->data() + at, end - at);
        if (line.ends_with(".desktop")) database.ownerOfDesktopFile.emplace(std::string(line), package);
        at = end + 1;
      }
    }
    ::closedir(dir);
  }
  if (auto status = readRegularFile(directory + "/status", 256u << 20)) {
    PackageInfo current;
    bool installed = false;
    auto finish = [&] {
      if (!current.name.empty() && installed) database.packages[current.name] = current;
      current = PackageInfo{};
      installed = false;
    };
    std::size_t at = 0;
    while (at <= status->size()) {
      std::size_t end = status->find('\n', at);
      if (end == std::string::npos) end = status->size();
      std::string_view line(status->data() + at, end - at);
      if (line.empty()) {
        finish();
      } else if (line.starts_with("Package: ")) {
        current.name = line.substr(9);
      } else if (line.starts_with("Version: ")) {
        current.version = line.substr(9);
      } else if (line.starts_with("Installed-Size: ")) {
        current.installedBytes = std::atoll(std::string(line.substr(16)).c_str()) * 1024;
      } else if (line.starts_with("Status: ")) {
        installed = line.ends_with(" installed");
      }
      at = end + 1;
    }
    finish();
  }
  return database;
}

// --- Flatpak ---

// "/var/lib/flatpak/exports/share/applications/org.x.App.desktop" and the
// user's installation: the app id and its installation's app folder.
std::optional<std::pair<std::string, std::string>> flatpakApp(const std::string& path, const std::string& home) {
  for (const std::string& root : {std::string("/var/lib/flatpak"), home + "/.local/share/flatpak"}) {
    std::string exports = root + "/exports/share/applications/";
    if (path.starts_with(exports) && path.ends_with(".desktop")) {
      std::string id = path.substr(exports.size(), path.size() - exports.size() - 8);
      if (id.find('/') == std::string::npos) return std::make_pair(id, root + "/app/" + id);
    }
  }
  return std::nullopt;
}

// The newest release's version in the app's metainfo.
std::optional<std::string> flatpakVersion(const std::string& id, const std::string& appFolder) {
  for (const char* folder : {"metainfo", "appdata"}) {
    for (const char* suffix : {".metainfo.xml", ".appdata.xml"}) {
      auto bytes = readRegularFile(appFolder + "/current/active/files/share/" + folder + "/" + id + suffix, 8u << 20);
      if (!bytes) continue;
      xmlDocPtr doc = xmlReadMemory(bytes->data(), static_cast<int>(bytes->size()), nullptr, nullptr,
                                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
      if (!doc) continue;
      std::optional<std::string> version;
      xmlNodePtr root = xmlDocGetRootElement(doc);
      for (xmlNodePtr node = root ? root->children : nullptr; node && !version; node = node->next) {
        if (node->type != XML_ELEMENT_NODE || xmlStrcmp(node->name, BAD_CAST "releases") != 0) continue;
        for (xmlNodePtr release = node->children; release; release = release->next) {
          if (release->type != XML_ELEMENT_NODE || xmlStrcmp(release->name, BAD_CAST "release") != 0) continue;
          if (xmlChar* value = xmlGetProp(release, BAD_CAST "version")) {
            version = reinterpret_cast<const char*>(value);
            xmlFree(value);
            break;
          }
        }
      }
      xmlFreeDoc(doc);
      if (version) return version;
    }
  }
  return std::nullopt;
}

const char* kMainCategories[] = {"AudioVideo", "Audio", "Video", "Development", "Education", "Game", "Graphics",
                                 "Network", "Office", "Science", "Settings", "System", "Utility"};

std::string mainCategory(const char* categories) {
  if (!categories || !*categories) return "--";
  gchar** list = g_strsplit(categories, ";", -1);
  std::string first, main;
  for (gchar** item = list; *item; ++item) {
    if (!**item) continue;
    if (first.empty()) first = *item;
    for (const char* known : kMainCategories) {
      if (main.empty() && std::string_view(*item) == known) main = *item;
    }
  }
  g_strfreev(list);
  if (!main.empty()) return main;
  return first.empty() ? "--" : first;
}

}  // namespace

Json FileAttributes::toJson() const {
  Json json = Json::object();
  json["path"] = path;
  json["contentType"] = contentType;
  if (size) json["size"] = *size;
  json["creationDate"] = creationDate;
  json["contentChangeDate"] = contentChangeDate;
  json["contentLastUsedDate"] = contentLastUsedDate;
  json["cacheTimestamp"] = cacheTimestamp;
  return json;
}

Json AppAttributes::toJson() const {
  Json json = Json::object();
  json["path"] = path;
  json["category"] = category;
  if (size) json["size"] = *size;
  json["version"] = version;
  json["creationDate"] = creationDate;
  json["finalUsedDate"] = finalUsedDate;
  json["cacheTimestamp"] = cacheTimestamp;
  return json;
}

AttributeEnvironment AttributeEnvironment::standard() {
  AttributeEnvironment environment;
  environment.homeDirectory = quorvi::homeDirectory();
  environment.language = Language::shared().preferredLanguage();
  environment.recent = &RecentFiles::shared();
  return environment;
}

std::optional<FileAttributes> FileAttributesReader::read(const std::string& path) const {
  if (path.empty() || path.front() != '/') return std::nullopt;
  FileTimes times = targetTimesOf(path);
  if (!times.exists) return std::nullopt;
  FileAttributes attributes;
  attributes.path = path;
  attributes.contentType = mimeTypeDescription(mimeTypeOfItem(path, times), environment_.language);
  attributes.creationDate = attributeDate(times.birth);
  attributes.contentChangeDate = attributeDate(times.modification);
  std::string oneDrive = environment_.homeDirectory + "/OneDrive";
  bool fileSystemOnly = !environment_.homeDirectory.empty() && path.starts_with(oneDrive) &&
                        (path.size() == oneDrive.size() || path[oneDrive.size()] == '/');
  if (!fileSystemOnly) {
    if (!times.isDirectory) attributes.size = attributeSize(times.size, environment_.language);
    attributes.contentLastUsedDate = attributeDate(lastUsedDate(path, times, environment_.recent));
  }
  attributes.cacheTimestamp = nowSeconds();
  return attributes;
}

std::optional<PackageInfo> packageOwning(const std::string& path, const std::string& dpkgDirectory) {
  const DpkgDatabase& database = dpkgDatabase(dpkgDirectory);
  auto owner = database.ownerOfDesktopFile.find(path);
  if (owner == database.ownerOfDesktopFile.end()) return std::nullopt;
  auto package = database.packages.find(owner->second);
  if (package == database.packages.end()) return PackageInfo{owner->second, "", std::nullopt};
  return package->second;
}

std::optional<AppAttributes> AppAttributesReader::read(const std::string& path) const {
  if (path.empty() || path.front() != '/') return std::nullopt;
  FileTimes times = targetTimesOf(path);
  if (!times.exists) return std::nullopt;
  AppAttributes attributes;
  attributes.path = path;
  attributes.creationDate = attributeDate(times.birth);
  attributes.cacheTimestamp = nowSeconds();
  if (!path.ends_with(".desktop") || !times.isRegular) {
    if (!times.isDirectory) attributes.size = attributeSize(times.size, environment_.language);
    return attributes;
  }

  auto bytes = readRegularFile(path, kSmallTextFileCap);
  if (!bytes) return std::nullopt;
  GKeyFile* keys = g_key_file_new();
  if (!g_key_file_load_from_data(keys, bytes->data(), bytes->size(), G_KEY_FILE_NONE, nullptr)) {
    g_key_file_free(keys);
    return std::nullopt;
  }
  GDesktopAppInfo* info = g_desktop_app_info_new_from_keyfile(keys);
  g_key_file_free(keys);
  if (!info) return std::nullopt;

  attributes.category = mainCategory(g_desktop_app_info_get_categories(info));
  std::string program;
  if (const char* executable = g_app_info_get_executable(G_APP_INFO(info))) {
    gchar* found = g_find_program_in_path(executable);
    if (found) program = found;
    g_free(found);
  }
  g_object_unref(info);

  std::optional<int64_t> bytesOfApp;
  if (auto package = packageOwning(path, environment_.dpkgDirectory)) {
    if (!package->version.empty()) attributes.version = package->version;
    bytesOfApp = package->installedBytes;
  } else if (auto flatpak = flatpakApp(path, environment_.homeDirectory)) {
    if (auto version = flatpakVersion(flatpak->first, flatpak->second)) attributes.version = *version;
  }
  if (!bytesOfApp && !program.empty()) {
    FileTimes programTimes = targetTimesOf(program);
    if (programTimes.exists) bytesOfApp = programTimes.size;
  }
  attributes.size = attributeSize(bytesOfApp, environment_.language);

  // Last use: files it opened, by the recently-used list; or a read of its
  // program later than the program's installation.
  std::optional<double> lastUsed;
  if (environment_.recent) {
    std::string id = nameOf(path);
    for (const auto& document : environment_.recent->documentsOf(id)) lastUsed = std::max(lastUsed.value_or(0), document.date);
  }
  if (!program.empty()) {
    struct stat info {};
    char resolved[PATH_MAX];
    if (::realpath(program.c_str(), resolved) && ::stat(resolved, &info) == 0) {
      FileTimes programTimes = fileTimesOf(resolved);
      double changed = static_cast<double>(info.st_ctim.tv_sec);
      if (programTimes.access && *programTimes.access > changed + 1) lastUsed = std::max(lastUsed.value_or(0), *programTimes.access);
    }
  }
  attributes.finalUsedDate = attributeDate(lastUsed);
  return attributes;
}

}  // namespace quorvi

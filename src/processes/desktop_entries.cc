#include "processes/desktop_entries.h"

#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "platform/paths.h"
#include "platform/process_runner.h"
#include "processes/proc_files.h"
#include "processes/text_util.h"

namespace quorvi {

namespace fs = std::filesystem;

namespace {

constexpr size_t kMaxEntryBytes = 1 << 20;
constexpr int kMaxFolderDepth = 8;

// Programs that run other programs: their process says nothing about which
// application it belongs to.
const std::set<std::string> kGenericLaunchers = {
    "sh", "bash", "dash", "zsh", "ksh", "fish", "env", "python", "python2", "python3", "perl", "ruby",
    "node", "nodejs", "java", "mono", "gjs", "wine", "flatpak", "snap", "xdg-open", "gio", "sudo", "pkexec",
    "bwrap", "firejail", "exo-open", "kioclient5", "kde-open5"};

// File managers, the one kind of application the list never offers to quit
// (the desktop itself often depends on them).
const std::set<std::string> kFileManagerIds = {
    "org.gnome.Nautilus.desktop", "nautilus.desktop", "nemo.desktop", "caja.desktop", "thunar.desktop",
    "Thunar.desktop", "org.xfce.Thunar.desktop", "pcmanfm.desktop", "pcmanfm-qt.desktop",
    "org.kde.dolphin.desktop", "dolphin.desktop", "spacefm.desktop", "io.elementary.files.desktop"};

// Versioned interpreters ("python3.11", "ruby3.1") count as their family.
bool isGenericLauncher(const std::string& fileName) {
  if (kGenericLaunchers.count(fileName)) return true;
  for (const char* family : {"python", "perl", "ruby", "node", "java", "lua"}) {
    if (fileName.starts_with(family)) return true;
  }
  return false;
}

std::string trim(std::string_view text) {
  size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string_view::npos) return "";
  size_t end = text.find_last_not_of(" \t\r");
  return std::string(text.substr(begin, end - begin + 1));
}

std::string unescapeValue(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    char next = value[++i];
    switch (next) {
      case 's': out += ' '; break;
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case 'r': out += '\r'; break;
      case '\\': out += '\\'; break;
      default: out += '\\'; out += next;  // kept for the Exec parser (\" \$ ...)
    }
  }
  return out;
}

// Words of an Exec value: blanks separate, double quotes group, and inside
// quotes a backslash takes the next character literally.
std::vector<std::string> execWords(std::string_view exec) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false, quoted = false;
  for (size_t i = 0; i < exec.size(); ++i) {
    char c = exec[i];
    if (quoted) {
      if (c == '\\' && i + 1 < exec.size()) word += exec[++i];
      else if (c == '"') quoted = false;
      else word += c;
    } else if (c == '"') {
      quoted = inWord = true;
    } else if (c == ' ' || c == '\t') {
      if (inWord) words.push_back(std::move(word));
      word.clear();
      inWord = false;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (inWord) words.push_back(std::move(word));
  return words;
}

bool isTrue(const std::map<std::string, std::string>& keys, const std::string& key) {
  auto found = keys.find(key);
  return found != keys.end() && found->second == "true";
}

bool listContains(const std::map<std::string, std::string>& keys, const std::string& key, std::string_view item) {
  auto found = keys.find(key);
  if (found == keys.end()) return false;
  for (auto piece : text::splitDroppingEmpty(found->second, ';')) {
    if (piece == item) return true;
  }
  return false;
}

std::optional<std::string> resolvedProgram(const std::string& program) {
  std::string path = program.find('/') != std::string::npos ? program : findExecutable(program);
  if (path.empty() || path.front() != '/') return std::nullopt;
  std::error_code error;
  fs::path canonical = fs::canonical(path, error);
  if (error) return std::nullopt;
  return canonical.string();
}

long long modificationTime(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return -1;
  return (long long)info.st_mtim.tv_sec * 1000000000LL + info.st_mtim.tv_nsec;
}

}  // namespace

std::map<std::string, std::string> readDesktopEntryGroup(std::string_view text) {
  std::map<std::string, std::string> keys;
  bool inGroup = false;
  for (auto line : text::splitDroppingEmpty(text, '\n')) {
    std::string trimmed = trim(line);
    if (trimmed.empty() || trimmed[0] == '#') continue;
    if (trimmed[0] == '[') {
      inGroup = trimmed == "[Desktop Entry]";
      continue;
    }
    size_t equals = trimmed.find('=');
    if (!inGroup || equals == std::string::npos) continue;
    std::string key = trim(std::string_view(trimmed).substr(0, equals));
    if (!key.empty()) keys.emplace(key, unescapeValue(trim(std::string_view(trimmed).substr(equals + 1))));
  }
  return keys;
}

std::optional<std::string> programOfExec(std::string_view exec) {
  auto words = execWords(exec);
  size_t i = 0;
  if (i < words.size() && words[i] == "env") {
    ++i;
    while (i < words.size() && words[i].find('=') != std::string::npos && words[i][0] != '=') ++i;
  }
  if (i >= words.size() || words[i].empty()) return std::nullopt;
  return words[i];
}

std::string localizedName(const std::map<std::string, std::string>& keys, SupportedLanguage language) {
  std::vector<std::string> locales;
  switch (language) {
    case SupportedLanguage::chinese: locales = {"zh_CN", "zh_Hans", "zh_SG", "zh"}; break;
    case SupportedLanguage::traditionChinese: locales = {"zh_TW", "zh_Hant", "zh_HK", "zh"}; break;
    case SupportedLanguage::english: locales = {"en_US", "en"}; break;
  }
  for (const auto& locale : locales) {
    auto found = keys.find("Name[" + locale + "]");
    if (found != keys.end() && !found->second.empty()) return found->second;
  }
  auto name = keys.find("Name");
  return name == keys.end() ? "" : name->second;
}

std::optional<DesktopApplication> desktopApplicationFromText(std::string_view text, const std::string& desktopId,
                                                             const std::string& filePath, SupportedLanguage language) {
  auto keys = readDesktopEntryGroup(text);
  auto type = keys.find("Type");
  if (type == keys.end() || type->second != "Application") return std::nullopt;
  if (isTrue(keys, "Hidden") || isTrue(keys, "NoDisplay") || isTrue(keys, "Terminal")) return std::nullopt;
  auto exec = keys.find("Exec");
  if (exec == keys.end()) return std::nullopt;
  auto program = programOfExec(exec->second);
  if (!program || isGenericLauncher(text::lastPathComponent(*program))) return std::nullopt;
  auto resolved = resolvedProgram(*program);
  if (!resolved) return std::nullopt;
  DesktopApplication application;
  application.desktopId = desktopId;
  application.filePath = filePath;
  application.name = localizedName(keys, language);
  application.program = *resolved;
  application.programFileName = text::lastPathComponent(*resolved);
  if (application.name.empty() || isGenericLauncher(application.programFileName)) return std::nullopt;
  application.isFileManager = kFileManagerIds.count(desktopId) > 0 || listContains(keys, "Categories", "FileManager");
  return application;
}

std::vector<std::string> applicationDirectories() {
  std::vector<std::string> directories = {xdgDataHome() + "/applications"};
  for (const auto& dir : xdgDataDirs()) directories.push_back(dir + "/applications");
  return directories;
}

DesktopApplicationCatalog& DesktopApplicationCatalog::shared() {
  static auto* catalog = new DesktopApplicationCatalog(applicationDirectories());
  return *catalog;
}

DesktopApplicationCatalog::DesktopApplicationCatalog(std::vector<std::string> directories)
    : directories_(std::move(directories)) {}

std::vector<DesktopApplication> DesktopApplicationCatalog::applications(SupportedLanguage language) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!isCurrent(language)) rescan(language);
  return applications_;
}

bool DesktopApplicationCatalog::isCurrent(SupportedLanguage language) const {
  if (!scanned_ || language != language_) return false;
  for (const auto& [folder, time] : signature_) {
    if (modificationTime(folder) != time) return false;
  }
  return true;
}

void DesktopApplicationCatalog::rescan(SupportedLanguage language) {
  Signature signature;
  std::set<std::string> seenIds;
  std::vector<DesktopApplication> applications;
  for (const auto& root : directories_) {
    signature.emplace_back(root, modificationTime(root));
    std::error_code error;
    fs::recursive_directory_iterator walker(root, fs::directory_options::skip_permission_denied, error);
    for (; !error && walker != fs::recursive_directory_iterator(); walker.increment(error)) {
      const fs::directory_entry& entry = *walker;
      std::error_code statError;
      if (entry.is_directory(statError)) {
        if (walker.depth() >= kMaxFolderDepth) walker.disable_recursion_pending();
        signature.emplace_back(entry.path().string(), modificationTime(entry.path().string()));
        continue;
      }
      if (entry.path().extension() != ".desktop") continue;
      std::string id = fs::relative(entry.path(), root, statError).string();
      for (char& c : id) if (c == '/') c = '-';
      if (statError || !seenIds.insert(id).second) continue;
      auto contents = procfs::readSmallFile(entry.path().string());
      if (!contents || contents->size() > kMaxEntryBytes) continue;
      if (auto app = desktopApplicationFromText(*contents, id, entry.path().string(), language)) {
        applications.push_back(std::move(*app));
      }
    }
  }
  signature_ = std::move(signature);
  applications_ = std::move(applications);
  language_ = language;
  scanned_ = true;
}

}  // namespace quorvi

#include "processes/desktop_applications.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <regex>
#include <set>

#include "apps/app_environment.h"
#include "platform/process_runner.h"
#include "processes/text_util.h"

namespace quorvi {

namespace {

namespace fs = std::filesystem;

const std::set<std::string, std::less<>> kGenericLaunchers = {
    "sh", "bash", "dash", "zsh", "ksh", "fish", "env", "python", "python2", "python3", "perl", "ruby",
    "node", "nodejs", "java", "mono", "gjs", "wine", "flatpak", "snap", "xdg-open", "gio", "sudo", "pkexec",
    "bwrap", "firejail", "exo-open", "kioclient5", "kde-open5", "lua", "luajit", "php", "pypy3", "guile"};

// File managers, the one kind of application the list never offers to quit
// (the desktop itself often depends on them).
const std::set<std::string, std::less<>> kFileManagerIds = {
    "org.gnome.Nautilus.desktop", "nautilus.desktop", "nemo.desktop", "caja.desktop", "thunar.desktop",
    "Thunar.desktop", "org.xfce.Thunar.desktop", "pcmanfm.desktop", "pcmanfm-qt.desktop",
    "org.kde.dolphin.desktop", "dolphin.desktop", "spacefm.desktop", "io.elementary.files.desktop"};

std::optional<std::string> resolvedProgram(const std::string& program, const std::vector<std::string>& searchPath) {
  std::string path;
  if (program.find('/') != std::string::npos) {
    path = program;
  } else {
    for (const auto& folder : searchPath) {
      std::string candidate = folder + "/" + program;
      if (::access(candidate.c_str(), X_OK) == 0) {
        path = candidate;
        break;
      }
    }
    if (path.empty()) path = findExecutable(program);
  }
  if (path.empty() || path.front() != '/') return std::nullopt;
  std::error_code error;
  fs::path canonical = fs::canonical(path, error);
  if (error) return std::nullopt;
  return canonical.string();
}

bool isFieldCode(const std::string& word) { return word.size() == 2 && word[0] == '%'; }

// "\x2d" and the like, as systemd writes them in unit names.
std::string unescapeUnitName(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' && std::isxdigit(uint8_t(text[i + 2])) &&
        std::isxdigit(uint8_t(text[i + 3]))) {
      out += char(std::stoi(std::string(text.substr(i + 2, 2)), nullptr, 16));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::optional<std::string> sandboxKeyOfUnit(std::string_view unit) {
  if (!unit.ends_with(".scope")) return std::nullopt;
  unit.remove_suffix(6);
  constexpr std::string_view kFlatpak = "app-flatpak-";
  if (unit.starts_with(kFlatpak)) {
    unit.remove_prefix(kFlatpak.size());
    std::size_t dash = unit.rfind('-');
    if (dash == std::string_view::npos || dash == 0) return std::nullopt;
    return "flatpak:" + unescapeUnitName(unit.substr(0, dash));
  }
  constexpr std::string_view kSnap = "snap.";
  if (unit.starts_with(kSnap)) {
    unit.remove_prefix(kSnap.size());
    std::size_t dot = unit.find('.');
    if (dot == std::string_view::npos || dot == 0) return std::nullopt;
    std::string_view snap = unit.substr(0, dot), rest = unit.substr(dot + 1);
    static const std::regex uuidTail("-[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{12}$");
    std::string app(rest);
    std::smatch match;
    if (std::regex_search(app, match, uuidTail)) {
      app.resize(app.size() - match.length(0));
    } else if (std::size_t dash = app.rfind('-'); dash != std::string::npos) {
      app.resize(dash);
    }
    if (app.empty()) return std::nullopt;
    return "snap:" + std::string(snap) + "_" + unescapeUnitName(app);
  }
  return std::nullopt;
}

// Where the preferred entry of several for one program sorts first.
bool preferredFirst(const DesktopApplication& a, const DesktopApplication& b) {
  auto namedAfterProgram = [](const DesktopApplication& app) {
    std::string stem = text::asciiLowercase(app.desktopId.substr(0, app.desktopId.rfind(".desktop")));
    std::string last = stem.substr(stem.rfind('.') + 1);
    std::string program = text::asciiLowercase(app.programFileName);
    return !program.empty() && (stem == program || last == program);
  };
  bool aNamed = namedAfterProgram(a), bNamed = namedAfterProgram(b);
  if (aNamed != bNamed) return aNamed;
  if (a.execArgumentCount != b.execArgumentCount) return a.execArgumentCount < b.execArgumentCount;
  return a.desktopId < b.desktopId;
}

}  // namespace

bool isGenericLauncher(std::string_view fileName) {
  if (kGenericLaunchers.count(fileName)) return true;
  // Versioned interpreters ("python3.11", "ruby3.1", "lua5.4") count as
  // their family; names that merely begin with one ("luanti") do not.
  static const std::regex versioned("(python|perl|ruby|node|nodejs|java|lua|luajit|php|pypy|guile|tclsh|wish)[0-9][0-9.]*");
  return std::regex_match(fileName.begin(), fileName.end(), versioned);
}

std::optional<DesktopApplication> desktopApplicationOf(const DesktopEntry& entry, SupportedLanguage language,
                                                       const std::vector<std::string>& currentDesktops,
                                                       const std::vector<std::string>& searchPath) {
  if (!isShownInMenus(entry, currentDesktops, searchPath) || entry.terminal) return std::nullopt;
  DesktopApplication application;
  application.desktopId = entry.desktopId;
  application.filePath = entry.filePath;
  application.name = entry.name.in(language);
  if (!entry.flatpakId.empty()) application.sandboxKey = "flatpak:" + entry.flatpakId;
  if (!entry.snapInstanceName.empty()) application.sandboxKey = "snap:" + entry.idStem();
  auto arguments = execArguments(entry.exec);
  auto program = programOfExec(entry.exec);
  if (program) {
    auto at = std::find(arguments.begin(), arguments.end(), *program);
    application.execArgumentCount = int(std::count_if(at == arguments.end() ? at : at + 1, arguments.end(),
                                                      [](const std::string& word) { return !isFieldCode(word); }));
  }
  if (program && !isGenericLauncher(text::lastPathComponent(*program))) {
    if (auto resolved = resolvedProgram(*program, searchPath); resolved && !isGenericLauncher(text::lastPathComponent(*resolved))) {
      application.program = *resolved;
      application.programFileName = text::lastPathComponent(*resolved);
    }
  }
  if (application.name.empty() || (application.program.empty() && application.sandboxKey.empty())) {
    return std::nullopt;
  }
  application.isFileManager = kFileManagerIds.count(entry.desktopId) > 0 ||
                              std::find(entry.categories.begin(), entry.categories.end(), "FileManager") !=
                                  entry.categories.end();
  return application;
}

std::optional<std::string> sandboxKeyOfControlGroup(std::string_view cgroupText) {
  for (auto line : text::splitDroppingEmpty(cgroupText, '\n')) {
    std::size_t colon = line.find(':');
    colon = colon == std::string_view::npos ? colon : line.find(':', colon + 1);
    if (colon == std::string_view::npos) continue;
    for (auto unit : text::splitDroppingEmpty(line.substr(colon + 1), '/')) {
      if (auto key = sandboxKeyOfUnit(unit)) return key;
    }
  }
  return std::nullopt;
}

DesktopApplicationCatalog& DesktopApplicationCatalog::shared() {
  static auto* catalog = [] {
    AppEnvironment environment = AppEnvironment::standard();
    return new DesktopApplicationCatalog(DesktopCatalog::shared(), environment.currentDesktops,
                                         environment.executableSearchPath);
  }();
  return *catalog;
}

DesktopApplicationCatalog::DesktopApplicationCatalog(DesktopCatalog& catalog, std::vector<std::string> currentDesktops,
                                                     std::vector<std::string> searchPath)
    : catalog_(catalog), currentDesktops_(std::move(currentDesktops)), searchPath_(std::move(searchPath)) {}

std::vector<DesktopApplication> DesktopApplicationCatalog::applications(SupportedLanguage language) {
  DesktopCatalogSnapshotRef snapshot = catalog_.currentSnapshot();
  {
    std::lock_guard guard(lock_);
    if (derivedFrom_ == snapshot && derivedLanguage_ == language) return applications_;
  }
  std::vector<DesktopApplication> applications;
  for (const auto& entry : snapshot->entries()) {
    if (auto application = desktopApplicationOf(entry, language, currentDesktops_, searchPath_)) {
      applications.push_back(std::move(*application));
    }
  }
  std::stable_sort(applications.begin(), applications.end(), preferredFirst);
  std::lock_guard guard(lock_);
  derivedFrom_ = snapshot;
  derivedLanguage_ = language;
  applications_ = applications;
  return applications;
}

}  // namespace quorvi

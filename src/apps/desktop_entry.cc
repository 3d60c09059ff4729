#include "apps/desktop_entry.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "platform/safe_file.h"

namespace quorvi {

namespace {

constexpr const char* kGroup = "Desktop Entry";

struct KeyFileDeleter {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileDeleter>;

// The locales tried for each language, most specific first; the
// untranslated key comes after them.
const std::array<std::vector<const char*>, 3> kLocales = {{
    {"en_US", "en"},
    {"zh_CN", "zh_Hans", "zh_SG", "zh"},
    {"zh_TW", "zh_Hant", "zh_HK", "zh"},
}};

constexpr std::array<SupportedLanguage, 3> kLanguages = {SupportedLanguage::english, SupportedLanguage::chinese,
                                                         SupportedLanguage::traditionChinese};

// Lookups ask whether the key is there first: a lookup of a missing key
// has GLib translate its error message even when nobody takes the error,
// which costs more than the whole parse of an entry's few present keys.
bool hasKey(GKeyFile* file, const std::string& key) {
  return g_key_file_has_key(file, kGroup, key.c_str(), nullptr) == TRUE;
}

std::optional<std::string> stringValue(GKeyFile* file, const std::string& key) {
  if (!hasKey(file, key)) return std::nullopt;
  gchar* value = g_key_file_get_string(file, kGroup, key.c_str(), nullptr);
  if (!value) return std::nullopt;
  std::string text(value);
  g_free(value);
  return text;
}

std::optional<std::vector<std::string>> listValue(GKeyFile* file, const std::string& key) {
  if (!hasKey(file, key)) return std::nullopt;
  gsize length = 0;
  gchar** values = g_key_file_get_string_list(file, kGroup, key.c_str(), &length, nullptr);
  if (!values) return std::nullopt;
  std::vector<std::string> list;
  for (gsize i = 0; i < length; ++i) {
    if (values[i][0] != '\0') list.emplace_back(values[i]);
  }
  g_strfreev(values);
  return list;
}

bool booleanValue(GKeyFile* file, const char* key) {
  if (!hasKey(file, key)) return false;
  return g_key_file_get_boolean(file, kGroup, key, nullptr) == TRUE;
}

// The value of key for the language: its first translation found, else the
// untranslated value (empty when there is none).
template <typename T, typename Read>
T localized(const std::string& key, SupportedLanguage language, Read&& read) {
  for (const char* locale : kLocales[static_cast<std::size_t>(language)]) {
    if (auto value = read(key + "[" + locale + "]"); value && !value->empty()) return *value;
  }
  return read(key).value_or(T{});
}

bool isKdeSettingsModule(GKeyFile* file, const DesktopEntry& entry) {
  if (auto types = listValue(file, "X-KDE-ServiceTypes")) {
    if (std::find(types->begin(), types->end(), "KCModule") != types->end()) return true;
  }
  auto arguments = execArguments(entry.exec);
  if (arguments.size() < 2) return false;
  std::string program = arguments[0].substr(arguments[0].rfind('/') + 1);
  return program == "systemsettings" || program == "systemsettings5" || program == "kcmshell5" ||
         program == "kcmshell6";
}

// Whether a line is "Key[locale]=..." with a locale the service never uses.
bool isUnusedTranslation(std::string_view line) {
  std::size_t start = line.find_first_not_of(" \t");
  if (start == std::string_view::npos || line[start] == '[' || line[start] == '#') return false;
  std::size_t equals = line.find('=', start);
  std::size_t open = line.find('[', start);
  if (equals == std::string_view::npos || open == std::string_view::npos || open > equals || open == start) {
    return false;
  }
  std::size_t close = line.find(']', open);
  if (close == std::string_view::npos || close > equals) return false;
  std::string_view locale = line.substr(open + 1, close - open - 1);
  if (locale.size() < 2) return false;
  bool kept = locale.starts_with("zh") || locale.starts_with("en");
  if (kept && locale.size() > 2 && locale[2] != '_' && locale[2] != '@' && locale[2] != '.') kept = false;
  return !kept;
}

}  // namespace

std::string withoutUnusedTranslations(std::string_view bytes) {
  std::string kept;
  kept.reserve(bytes.size());
  std::size_t start = 0;
  while (start < bytes.size()) {
    std::size_t end = bytes.find('\n', start);
    std::size_t next = end == std::string_view::npos ? bytes.size() : end + 1;
    std::string_view line = bytes.substr(start, next - start);
    if (!isUnusedTranslation(line)) kept.append(line);
    start = next;
  }
  return kept;
}

std::vector<std::string> DesktopEntry::urlSchemes() const {
  constexpr std::string_view kPrefix = "x-scheme-handler/";
  std::vector<std::string> schemes;
  for (const auto& type : mimeTypes) {
    if (type.size() > kPrefix.size() && type.starts_with(kPrefix)) {
      std::string scheme = type.substr(kPrefix.size());
      if (std::find(schemes.begin(), schemes.end(), scheme) == schemes.end()) schemes.push_back(scheme);
    }
  }
  return schemes;
}

std::string DesktopEntry::idStem() const {
  constexpr std::string_view kSuffix = ".desktop";
  return desktopId.ends_with(kSuffix) ? desktopId.substr(0, desktopId.size() - kSuffix.size()) : desktopId;
}

std::optional<DesktopEntry> parseDesktopEntry(std::string_view bytes, std::string desktopId, std::string filePath) {
  KeyFile file(g_key_file_new());
  // The translations left are all kept: the service answers in its own
  // language, not the process locale's.
  std::string text = withoutUnusedTranslations(bytes);
  if (!g_key_file_load_from_data(file.get(), text.data(), text.size(), G_KEY_FILE_KEEP_TRANSLATIONS, nullptr)) {
    return std::nullopt;
  }
  if (!g_key_file_has_group(file.get(), kGroup)) return std::nullopt;
  DesktopEntry entry;
  entry.desktopId = std::move(desktopId);
  entry.filePath = std::move(filePath);
  entry.type = stringValue(file.get(), "Type").value_or("");
  auto readString = [&](const std::string& key) { return stringValue(file.get(), key); };
  auto readList = [&](const std::string& key) { return listValue(file.get(), key); };
  for (SupportedLanguage language : kLanguages) {
    entry.name.in(language) = localized<std::string>("Name", language, readString);
    entry.genericName.in(language) = localized<std::string>("GenericName", language, readString);
    auto keywords = localized<std::vector<std::string>>("Keywords", language, readList);
    if (keywords.empty()) keywords = localized<std::vector<std::string>>("X-KDE-Keywords", language, readList);
    entry.keywords.in(language) = std::move(keywords);
  }
  if (entry.type.empty() || entry.name.in(SupportedLanguage::english).empty()) return std::nullopt;
  entry.mimeTypes = readList("MimeType").value_or(std::vector<std::string>{});
  entry.categories = readList("Categories").value_or(std::vector<std::string>{});
  entry.onlyShowIn = readList("OnlyShowIn").value_or(std::vector<std::string>{});
  entry.notShowIn = readList("NotShowIn").value_or(std::vector<std::string>{});
  entry.exec = readString("Exec").value_or("");
  entry.tryExec = readString("TryExec").value_or("");
  entry.version = readString("Version").value_or("");
  entry.hidden = booleanValue(file.get(), "Hidden");
  entry.noDisplay = booleanValue(file.get(), "NoDisplay");
  entry.terminal = booleanValue(file.get(), "Terminal");
  entry.dbusActivatable = booleanValue(file.get(), "DBusActivatable");
  entry.gnomeSettingsPanel = readString("X-GNOME-Settings-Panel").value_or("");
  entry.flatpakId = readString("X-Flatpak").value_or("");
  entry.snapInstanceName = readString("X-SnapInstanceName").value_or("");
  entry.isKdeSettingsModule = isKdeSettingsModule(file.get(), entry);
  return entry;
}

std::optional<DesktopEntry> readDesktopEntry(const std::string& filePath, std::string desktopId) {
  auto bytes = readRegularFile(filePath, kDesktopEntryByteCap);
  if (!bytes) return std::nullopt;
  return parseDesktopEntry(*bytes, std::move(desktopId), filePath);
}

bool showsIn(const DesktopEntry& entry, const std::vector<std::string>& currentDesktops) {
  auto names = [](const std::vector<std::string>& list, const std::string& desktop) {
    return std::find(list.begin(), list.end(), desktop) != list.end();
  };
  for (const auto& desktop : currentDesktops) {
    if (names(entry.onlyShowIn, desktop)) return true;
    if (names(entry.notShowIn, desktop)) return false;
  }
  return entry.onlyShowIn.empty();
}

bool tryExecFound(const DesktopEntry& entry, const std::vector<std::string>& searchPath) {
  if (entry.tryExec.empty()) return true;
  if (entry.tryExec.front() == '/') return ::access(entry.tryExec.c_str(), X_OK) == 0;
  if (entry.tryExec.find('/') != std::string::npos) return false;  // relative paths mean nothing here
  return std::any_of(searchPath.begin(), searchPath.end(), [&](const std::string& folder) {
    return ::access((folder + "/" + entry.tryExec).c_str(), X_OK) == 0;
  });
}

bool isShownInMenus(const DesktopEntry& entry, const std::vector<std::string>& currentDesktops,
                    const std::vector<std::string>& searchPath) {
  return entry.isApplication() && !entry.hidden && !entry.noDisplay && showsIn(entry, currentDesktops) &&
         tryExecFound(entry, searchPath);
}

std::vector<std::string> execArguments(std::string_view exec) {
  std::string text(exec);
  gint count = 0;
  gchar** words = nullptr;
  if (!g_shell_parse_argv(text.c_str(), &count, &words, nullptr)) return {};
  std::vector<std::string> arguments(words, words + count);
  g_strfreev(words);
  return arguments;
}

std::optional<std::string> programOfExec(std::string_view exec) {
  auto words = execArguments(exec);
  std::size_t i = 0;
  if (i < words.size() && words[i] == "env") {
    ++i;
    while (i < words.size() && words[i].find('=') != std::string::npos && words[i][0] != '=') ++i;
  }
  if (i >= words.size() || words[i].empty()) return std::nullopt;
  return words[i];
}

}  // namespace quorvi

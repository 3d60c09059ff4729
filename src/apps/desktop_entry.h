// DesktopEntry: one XDG desktop entry file (an installed application's
// ".desktop" file), read with GLib's key-file reader, which applies the
// format's escapes (\s \n \t \r \\), its lists (";"-separated, "\;" kept)
// and its localized keys (Name[zh_CN]) as the desktop-entry format defines
// them. Only the [Desktop Entry] group is read.
//
// Names are kept for each language the service speaks, so that one parse
// serves every reader:
//   english           Name[en_US], Name[en], Name
//   chinese           Name[zh_CN], Name[zh_Hans], Name[zh_SG], Name[zh], Name
//   traditionChinese  Name[zh_TW], Name[zh_Hant], Name[zh_HK], Name[zh], Name
// (the same for GenericName and Keywords).
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/language.h"

namespace quorvi {

// A text in each SupportedLanguage, indexed by the language.
template <typename T>
struct PerLanguage {
  std::array<T, 3> values;
  const T& in(SupportedLanguage language) const { return values[static_cast<std::size_t>(language)]; }
  T& in(SupportedLanguage language) { return values[static_cast<std::size_t>(language)]; }
  bool operator==(const PerLanguage&) const = default;
};

struct DesktopEntry {
  std::string desktopId;  // "org.gnome.TextEditor.desktop"; folders below applications/ joined by "-"
  std::string filePath;   // the .desktop file
  std::string type;       // "Application", "Link", "Directory"
  PerLanguage<std::string> name;
  PerLanguage<std::string> genericName;
  PerLanguage<std::vector<std::string>> keywords;
  std::vector<std::string> mimeTypes;
  std::vector<std::string> categories;
  std::vector<std::string> onlyShowIn;
  std::vector<std::string> notShowIn;
  std::string exec;     // unescaped by the key-file rules; its own quoting kept
  std::string tryExec;
  std::string version;  // the entry's own Version key (the format version it follows)
  bool hidden = false;     // "deleted": hides entries of the same id in later folders too
  bool noDisplay = false;  // installed but not shown in menus
  bool terminal = false;
  bool dbusActivatable = false;
  std::string gnomeSettingsPanel;  // X-GNOME-Settings-Panel
  bool isKdeSettingsModule = false;  // a KDE System Settings module (KCM)
  std::string flatpakId;             // X-Flatpak: the sandboxed application's id
  std::string snapInstanceName;      // X-SnapInstanceName

  bool operator==(const DesktopEntry&) const = default;

  bool isApplication() const { return type == "Application"; }
  bool isSettingsPanel() const { return !gnomeSettingsPanel.empty() || isKdeSettingsModule; }
  // The schemes of its "x-scheme-handler/..." MIME types, in order.
  std::vector<std::string> urlSchemes() const;
  // The id without ".desktop".
  std::string idStem() const;
};

// Translations the service never shows are dropped before GLib reads the
// bytes: a desktop's entries carry their name, comment and actions in up to
// a hundred languages, and building those costs most of a parse. A line is
// dropped whole, and only when it is a localized key ("Key[locale]=...")
// whose locale is neither Chinese ("zh...") nor English ("en..."); every
// other line reaches GLib as it was.
std::string withoutUnusedTranslations(std::string_view bytes);

// Nothing when the bytes hold no [Desktop Entry] group, when GLib rejects
// them (not UTF-8, malformed lines), or when an entry lacks Type or Name.
std::optional<DesktopEntry> parseDesktopEntry(std::string_view bytes, std::string desktopId, std::string filePath);

// Reads the file through the safe-file layer (a FIFO or device named
// x.desktop is refused without blocking, the size is capped) and parses it.
std::optional<DesktopEntry> readDesktopEntry(const std::string& filePath, std::string desktopId);

// Largest desktop entry read; real ones are a few kilobytes, the largest
// (with every translation) under 100 KB.
inline constexpr std::size_t kDesktopEntryByteCap = 1u << 20;

// --- how the desktop shows an entry ---

// OnlyShowIn/NotShowIn against the running desktops (XDG_CURRENT_DESKTOP,
// in order): the first desktop named in either list decides; when none is
// named, an entry with OnlyShowIn is not shown.
bool showsIn(const DesktopEntry& entry, const std::vector<std::string>& currentDesktops);
// TryExec names a program that exists: an absolute executable path, or a name
// found in one of the folders. True when there is no TryExec.
bool tryExecFound(const DesktopEntry& entry, const std::vector<std::string>& searchPath);
// A menu would show it: an Application, not Hidden, not NoDisplay, for this
// desktop, with its TryExec found.
bool isShownInMenus(const DesktopEntry& entry, const std::vector<std::string>& currentDesktops,
                    const std::vector<std::string>& searchPath);

// The words of an Exec value (the format's quoting, as a shell reads it);
// empty when it cannot be parsed.
std::vector<std::string> execArguments(std::string_view exec);
// The program an Exec value starts: its first word, after any leading "env"
// and NAME=value words. Nothing when there is none.
std::optional<std::string> programOfExec(std::string_view exec);

}  // namespace quorvi

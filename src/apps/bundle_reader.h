// Application bundles: folders such as "Name.app", "Name.appex" and
// "Name.prefPane" whose Contents/Info.plist describes them. Rare on Linux,
// but launchers that share a folder with another system meet them, and the
// tests build them. Property lists are read with libplist (XML and binary);
// localized InfoPlist.strings files may also be in the older text form
// ("key" = "value";, UTF-8 or UTF-16), which is read here.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/language.h"

namespace quorvi {

struct BundleInfo {
  std::string path;
  std::string bundleIdentifier;  // CFBundleIdentifier; empty when there is none
  // The first of: CFBundleDisplayName of the localized info dictionary, of
  // the info dictionary, the folder's name; a known bundle suffix removed.
  std::string displayName;
  // The CFBundleURLSchemes of each CFBundleURLTypes dictionary, in order;
  // nothing when the bundle has no CFBundleURLTypes.
  std::optional<std::vector<std::string>> urlSchemes;
  std::string version;              // CFBundleShortVersionString, else CFBundleVersion
  std::string applicationCategory;  // LSApplicationCategoryType
};

// Suffixes of the bundle folders the app index knows.
inline constexpr const char* kBundleSuffixes[] = {".app", ".appex", ".prefPane"};
bool hasBundleSuffix(const std::string& name);
// The name without its bundle suffix ("Mail.app" -> "Mail").
std::string nameWithoutBundleSuffix(const std::string& name);
// The bundle a path lies in or is: the path up to its first component with a
// bundle suffix; nothing when there is none.
std::optional<std::string> enclosingBundle(const std::string& path);

// Nothing when the path is not a folder. A folder without a readable
// Info.plist still gives its name.
std::optional<BundleInfo> readBundle(const std::string& bundlePath, SupportedLanguage language);

// The string values of a .strings file (binary, XML or text form); empty
// when it cannot be read.
std::map<std::string, std::string> readStringsFile(const std::string& path);
std::map<std::string, std::string> parseStringsText(std::string_view bytes);

// The extension bundles an ".appexlist" property list names in its
// "AppExtensions" list: strings (paths, relative ones taken from the list's
// folder) or dictionaries with such a string under "Path".
std::vector<std::string> extensionsOfAppexList(const std::string& listPath);

}  // namespace quorvi

// AppEntry (AppIndexer::Entry): one launchable item of the app index -- an
// installed application, a settings panel or extension, or a device
// emulator -- as the launcher receives it. Entries are plain values, equal
// and hashed by their contents, and searchable by the approximate matcher
// through their match strings.
//
// JSON: an object with the keys in this order: "path", "bundleIdentifier",
// "category" (0, 1, 2), "nameOfDisplay", "hasPinyin", "matchs",
// "timestampOfLastUsed" (seconds since 1970), "fmatchs", and "urlSchemes"
// only when the item declares schemes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/json.h"
#include "fuse/fuseable.h"

namespace quorvi {

enum class AppCategory {
  application = 0,
  venturaSettingsExtension = 1,  // settings panels and extensions
  xcodeSimulator = 2,            // device simulators and emulators
};

struct AppEntry : public Fuseable {
  std::string path;              // the desktop file, the bundle, or the device's folder
  std::string bundleIdentifier;  // the desktop id, the bundle's identifier, or the emulator's
  AppCategory category = AppCategory::application;
  std::string nameOfDisplay;
  bool hasPinyin = false;            // the name holds Chinese and its pinyin forms are in matchs
  std::vector<std::string> matchs;   // what queries match against
  double timestampOfLastUsed = 0;    // seconds since 1970; 0 when unknown
  std::string fmatchs;               // matchs joined by blanks, for keyword search
  std::optional<std::vector<std::string>> urlSchemes;

  // One property per match string, in order, each of weight 1.0.
  std::vector<FuseProperty> properties() const override;

  bool operator==(const AppEntry& other) const;
  Json toJson() const;
  // Nothing when the object lacks a key or holds a wrong type.
  static std::optional<AppEntry> fromJson(const Json& json);
};

struct AppEntryHash {
  std::size_t operator()(const AppEntry& entry) const;
};

// An entry with its match strings made from the display name and, for a
// desktop entry, its generic name and keywords: each text itself, in lower
// case, and without separators (blanks, "-", "_", "."), each added once;
// for text holding Chinese, its pinyin strings and initials (hasPinyin is
// set when the display name holds Chinese).
AppEntry makeAppEntry(std::string path, std::string bundleIdentifier, AppCategory category,
                      std::string nameOfDisplay, const std::vector<std::string>& otherNames = {},
                      double timestampOfLastUsed = 0,
                      std::optional<std::vector<std::string>> urlSchemes = std::nullopt);

// The JSON array of entries as the reply bytes; nothing when it cannot be written.
OptionalBytes encodeAppEntries(const std::vector<AppEntry>& entries);

}  // namespace quorvi

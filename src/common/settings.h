// The settings shared with the launcher (its settings suite
// "com.meltrane.quorvi"): a JSON object in $XDG_CONFIG_HOME/quorvi/settings.json.
// Reads go to the file each time (the launcher may change it); writes re-read,
// change one key and replace the file atomically, so no other key is lost.
#pragma once

#include <optional>
#include <string>

#include "common/json.h"
#include "common/unfair_lock.h"

namespace quorvi {

class Settings {
 public:
  static constexpr const char* kSuiteName = "com.meltrane.quorvi";
  // Keys this service reads or writes.
  static constexpr const char* kPreferredLanguageKey = "com.quorvi.preferredLanguage";
  static constexpr const char* kTaskExecutableKey = "com.quorvi.taskExecutablePath";

  // The settings at the user's default location.
  static Settings& shared();
  // Settings kept in the given file (tests, tools).
  explicit Settings(std::string path);

  const std::string& path() const { return path_; }
  std::optional<Json> value(const std::string& key) const;
  std::optional<std::string> stringValue(const std::string& key) const;
  std::optional<bool> boolValue(const std::string& key) const;
  // Stores the value; false when the file could not be written.
  bool set(const std::string& key, const Json& value);

  static std::string defaultPath();

 private:
  Json load() const;
  std::string path_;
  mutable UnfairLock unfairlock;
};

}  // namespace quorvi

#include "common/settings.h"

#include <mutex>

#include "platform/atomic_file.h"
#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

Settings& Settings::shared() {
  static auto* settings = new Settings(defaultPath());
  return *settings;
}

Settings::Settings(std::string path) : path_(std::move(path)) {}

std::string Settings::defaultPath() { return xdgConfigHome() + "/quorvi/settings.json"; }

Json Settings::load() const {
  // Shared with the launcher and editable by hand: opened as any file found
  // on disk (a FIFO in its place must not block, nor a huge file exhaust us).
  auto text = readRegularFile(path_, kSmallTextFileCap);
  if (!text) return Json::object();
  Json json = Json::parse(*text, nullptr, /*allow_exceptions=*/false);
  // A damaged file reads as empty settings; it is never a reason to fail.
  return json.is_object() ? json : Json::object();
}

std::optional<Json> Settings::value(const std::string& key) const {
  std::lock_guard guard(unfairlock);
  Json json = load();
  auto it = json.find(key);
  if (it == json.end()) return std::nullopt;
  return *it;
}

std::optional<std::string> Settings::stringValue(const std::string& key) const {
  auto v = value(key);
  if (!v || !v->is_string()) return std::nullopt;
  return v->get<std::string>();
}

std::optional<bool> Settings::boolValue(const std::string& key) const {
  auto v = value(key);
  if (!v || !v->is_boolean()) return std::nullopt;
  return v->get<bool>();
}

bool Settings::set(const std::string& key, const Json& newValue) {
  std::lock_guard guard(unfairlock);
  Json json = load();
  json[key] = newValue;
  return makeParentDirectories(path_) && writeFileAtomically(path_, json.dump(2) + "\n");
}

}  // namespace quorvi

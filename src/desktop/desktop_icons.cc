#include "desktop/desktop_icons.h"

#include <gio/gio.h>

#include <algorithm>
#include <mutex>
#include <unordered_map>

#include "apps/desktop_entry.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

// Icons are looked up once per desktop file and per file extension: a search
// shows dozens of rows, and the answers hardly ever change while the service
// runs (a changed entry keeps its old icon until the service restarts).
class IconCache {
 public:
  template <typename Make>
  std::string get(const std::string& key, Make make) {
    {
      std::lock_guard lock(mutex_);
      auto it = icons_.find(key);
      if (it != icons_.end()) return it->second;
    }
    std::string icon = make();
    std::lock_guard lock(mutex_);
    if (icons_.size() > 4096) icons_.clear();
    icons_[key] = icon;
    return icon;
  }

 private:
  std::mutex mutex_;
  std::unordered_map<std::string, std::string> icons_;
};

IconCache& iconCache() {
  static IconCache* cache = new IconCache();
  return *cache;
}

// ".pdf", ".tar.gz"; "" for none.
std::string extensionOf(const std::string& name) {
  std::size_t dot = name.find_last_of('.');
  if (dot == std::string::npos || dot == 0) return "";
  if (dot >= 4 && name.compare(dot - 4, 4, ".tar") == 0) return name.substr(dot - 4);
  return name.substr(dot);
}

// The entry's Icon key, read with GLib's key-file reader from bytes read
// through safe_file (no GObject: this runs on request workers).
std::string makeApplicationIcon(const std::string& desktopFile) {
  std::string icon;
  if (auto bytes = readRegularFile(desktopFile, kDesktopEntryByteCap)) {
    GKeyFile* file = g_key_file_new();
    if (g_key_file_load_from_data(file, bytes->data(), bytes->size(), G_KEY_FILE_NONE, nullptr)) {
      gchar* value = g_key_file_get_string(file, G_KEY_FILE_DESKTOP_GROUP, G_KEY_FILE_DESKTOP_KEY_ICON, nullptr);
      if (value) icon = value;
      g_free(value);
    }
    g_key_file_free(file);
  }
  return icon.empty() ? "application-x-executable" : icon;
}

// The icon name icon themes give a type: its MIME type with "/"
// made "-" ("application-pdf"); "text-x-generic" when the type
// is unknown. Strings only, no GObject.
std::string makeFileIcon(const std::string& name) {
  gboolean uncertain = FALSE;
  gchar* type = g_content_type_guess(name.c_str(), nullptr, 0, &uncertain);
  std::string icon;
  if (type && !g_content_type_is_unknown(type)) {
    gchar* mime = g_content_type_get_mime_type(type);
    if (mime) {
      icon = mime;
      std::replace(icon.begin(), icon.end(), '/', '-');
    }
    g_free(mime);
  }
  g_free(type);
  return icon.empty() ? "text-x-generic" : icon;
}

std::string applicationIcon(const std::string& desktopFile) {
  return iconCache().get("app:" + desktopFile, [&] { return makeApplicationIcon(desktopFile); });
}

// By extension: the type guessed from the name alone depends on nothing else
// (files without one are guessed each time).
std::string fileIcon(const std::string& name) {
  std::string extension = extensionOf(name);
  if (extension.empty()) return makeFileIcon(name);
  return iconCache().get("ext:" + extension, [&] { return makeFileIcon(name); });
}

}  // namespace

std::string iconNameFor(const DesktopResult& result) {
  switch (result.kind) {
    case DesktopResultKind::application:
      return applicationIcon(result.target);
    case DesktopResultKind::folder:
      return "folder";
    case DesktopResultKind::file:
      return fileIcon(result.name);
    case DesktopResultKind::zoteroItem:
      return "x-office-document";
    case DesktopResultKind::contact:
      return "x-office-address-book";
  }
  return "";
}

}  // namespace quorvi

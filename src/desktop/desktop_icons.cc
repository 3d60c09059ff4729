#include "desktop/desktop_icons.h"

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

#include <mutex>
#include <unordered_map>

namespace quorvi {

namespace {

// The first name of a themed icon, or the icon's string form.
std::string nameOf(GIcon* icon) {
  if (!icon) return "";
  if (G_IS_THEMED_ICON(icon)) {
    const gchar* const* names = g_themed_icon_get_names(G_THEMED_ICON(icon));
    if (names && names[0]) return names[0];
  }
  gchar* text = g_icon_to_string(icon);
  std::string name = text ? text : "";
  g_free(text);
  return name;
}

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

std::string makeApplicationIcon(const std::string& desktopFile) {
  GDesktopAppInfo* info = g_desktop_app_info_new_from_filename(desktopFile.c_str());
  if (!info) return "application-x-executable";
  std::string name = nameOf(g_app_info_get_icon(G_APP_INFO(info)));
  g_object_unref(info);
  return name.empty() ? "application-x-executable" : name;
}

std::string makeFileIcon(const std::string& name) {
  gboolean uncertain = FALSE;
  gchar* type = g_content_type_guess(name.c_str(), nullptr, 0, &uncertain);
  std::string icon;
  if (type) {
    GIcon* gicon = g_content_type_get_icon(type);
    icon = nameOf(gicon);
    if (gicon) g_object_unref(gicon);
    g_free(type);
  }
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

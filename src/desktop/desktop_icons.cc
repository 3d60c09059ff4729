#include "desktop/desktop_icons.h"

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

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

std::string applicationIcon(const std::string& desktopFile) {
  GDesktopAppInfo* info = g_desktop_app_info_new_from_filename(desktopFile.c_str());
  if (!info) return "application-x-executable";
  std::string name = nameOf(g_app_info_get_icon(G_APP_INFO(info)));
  g_object_unref(info);
  return name.empty() ? "application-x-executable" : name;
}

std::string fileIcon(const std::string& name) {
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

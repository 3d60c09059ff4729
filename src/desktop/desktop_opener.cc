#include "desktop/desktop_opener.h"

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "apps/desktop_catalog.h"

namespace quorvi {

namespace {

void logFailure(const char* what, const std::string& subject, GError* error) {
  std::fprintf(stderr, "quorvifind: desktop: cannot %s %s: %s\n", what, subject.c_str(),
               error && error->message ? error->message : "unknown error");
  if (error) g_error_free(error);
}

std::string uriOf(const std::string& pathOrUri) {
  if (!pathOrUri.empty() && pathOrUri[0] == '/') {
    GFile* file = g_file_new_for_path(pathOrUri.c_str());
    gchar* uri = g_file_get_uri(file);
    std::string text = uri ? uri : "";
    g_free(uri);
    g_object_unref(file);
    return text;
  }
  return pathOrUri;
}

std::string parentOf(const std::string& path) {
  std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return "";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool startWithoutShell(const std::vector<std::string>& argv, const std::string& input) {
  std::vector<gchar*> args;
  for (const auto& arg : argv) args.push_back(const_cast<gchar*>(arg.c_str()));
  args.push_back(nullptr);
  gint stdinFd = -1;
  GError* error = nullptr;
  if (!g_spawn_async_with_pipes(nullptr, args.data(), nullptr,
                                // Without DO_NOT_REAP_CHILD GLib starts the program from a child
                                // it reaps at once, so nothing is left for us to wait for.
                                GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_STDOUT_TO_DEV_NULL |
                                            G_SPAWN_STDERR_TO_DEV_NULL),
                                nullptr, nullptr, nullptr, &stdinFd, nullptr, nullptr, &error)) {
    if (error) g_error_free(error);
    return false;
  }
  const char* data = input.data();
  std::size_t left = input.size();
  while (left > 0) {
    ssize_t n = ::write(stdinFd, data, left);
    if (n <= 0) break;
    data += n;
    left -= std::size_t(n);
  }
  ::close(stdinFd);
  return left == 0;
}

}  // namespace

bool DesktopOpener::openWithDefaultApplication(const std::string& pathOrUri) {
  std::string uri = uriOf(pathOrUri);
  if (uri.empty()) {
    logFailure("open", pathOrUri, nullptr);
    return false;
  }
  GError* error = nullptr;
  if (!g_app_info_launch_default_for_uri(uri.c_str(), nullptr, &error)) {
    logFailure("open", uri, error);
    return false;
  }
  return true;
}

bool DesktopOpener::launchDesktopEntry(const std::string& fileOrId) {
  GDesktopAppInfo* info = fileOrId.find('/') != std::string::npos
                              ? g_desktop_app_info_new_from_filename(fileOrId.c_str())
                              : g_desktop_app_info_new(fileOrId.c_str());
  if (!info) {
    logFailure("read the desktop entry", fileOrId, nullptr);
    return false;
  }
  GError* error = nullptr;
  bool launched = g_app_info_launch(G_APP_INFO(info), nullptr, nullptr, &error);
  if (!launched) logFailure("launch", fileOrId, error);
  g_object_unref(info);
  return launched;
}

bool DesktopOpener::launchSearch(const std::string& desktopEntryId, const std::vector<std::string>& terms) {
  // GIO's own index of desktop entries follows the folders only where a GLib
  // main loop runs, and the service runs none: an entry installed after GIO
  // first looked would stay unknown to it. The shared catalog reads the
  // folders again (this runs on the opener's queue, not the bus thread).
  auto catalog = DesktopCatalog::shared().refresh();
  const DesktopEntry* known = catalog ? catalog->entryWithId(desktopEntryId) : nullptr;
  GDesktopAppInfo* entry = known ? g_desktop_app_info_new_from_filename(known->filePath.c_str())
                                 : g_desktop_app_info_new(desktopEntryId.c_str());
  if (!entry) {
    logFailure("read the desktop entry", desktopEntryId, nullptr);
    return false;
  }
  const char* base = g_app_info_get_commandline(G_APP_INFO(entry));
  std::string commandLine = base ? base : "";
  commandLine += " --interactive";
  for (const auto& term : terms) {
    gchar* quoted = g_shell_quote(term.c_str());
    commandLine += std::string(" ") + quoted;
    g_free(quoted);
  }
  GAppInfoCreateFlags flags = g_desktop_app_info_get_boolean(entry, G_KEY_FILE_DESKTOP_KEY_TERMINAL)
                                  ? G_APP_INFO_CREATE_NEEDS_TERMINAL
                                  : G_APP_INFO_CREATE_NONE;
  g_object_unref(entry);
  GError* error = nullptr;
  // The command line is split into arguments by GLib's shell-quoting rules;
  // no shell runs it.
  GAppInfo* search = g_app_info_create_from_commandline(commandLine.c_str(), "quorvi search", flags, &error);
  if (!search) {
    logFailure("prepare", commandLine, error);
    return false;
  }
  bool launched = g_app_info_launch(search, nullptr, nullptr, &error);
  if (!launched) logFailure("launch", commandLine, error);
  g_object_unref(search);
  return launched;
}

bool DesktopOpener::open(const DesktopResult& result) {
  if (result.kind == DesktopResultKind::application) {
    std::string_view target = result.target;
    if (target.size() > 8 && target.substr(target.size() - 8) == ".desktop") return launchDesktopEntry(result.target);
  }
  return openWithDefaultApplication(result.target);
}

bool DesktopOpener::openContainingFolder(const DesktopResult& result) {
  if (result.target.empty() || result.target[0] != '/') {
    logFailure("open the folder of", result.identifier, nullptr);
    return false;
  }
  return openWithDefaultApplication(parentOf(result.target));
}

bool DesktopOpener::copyToClipboard(const std::string& text) {
  GError* error = nullptr;
  GDBusConnection* session = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  if (session) {
    GVariant* reply = g_dbus_connection_call_sync(session, "org.kde.klipper", "/klipper", "org.kde.klipper.klipper",
                                                  "setClipboardContents", g_variant_new("(s)", text.c_str()),
                                                  nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, 2000, nullptr, &error);
    g_object_unref(session);
    if (reply) {
      g_variant_unref(reply);
      return true;
    }
  }
  if (error) g_error_free(error);
  if (std::getenv("WAYLAND_DISPLAY") && startWithoutShell({"wl-copy"}, text)) return true;
  if (std::getenv("DISPLAY") && startWithoutShell({"xclip", "-selection", "clipboard"}, text)) return true;
  logFailure("copy", "to the clipboard", nullptr);
  return false;
}

}  // namespace quorvi

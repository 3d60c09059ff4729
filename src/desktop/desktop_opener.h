// DesktopOpener: opens what a desktop search found the way the desktop
// itself does, through GIO: files, folders and URIs with the user's default
// application for their type (mimeapps.list), applications by their desktop
// entry. Nothing goes through a shell. A failure is logged on standard error
// and answered false; it never ends the service.
//
// Launching may take a while (the default handler can be D-Bus activated):
// call these on a request worker, not on the bus thread.
#pragma once

#include <string>
#include <vector>

#include "desktop/desktop_search.h"

namespace quorvi {

class DesktopOpener {
 public:
  // Applications are launched from their desktop entry; everything else is
  // opened with its default application.
  static bool open(const DesktopResult& result);
  // A path or URI with its default application.
  static bool openWithDefaultApplication(const std::string& pathOrUri);
  // The folder that holds the result (a file or folder).
  static bool openContainingFolder(const DesktopResult& result);
  // A desktop entry by its file or its desktop id ("org.example.App.desktop").
  static bool launchDesktopEntry(const std::string& fileOrId);
  // Starts the entry's program with "--interactive" and the terms appended
  // (each quoted, no shell), in a terminal when the entry asks for one: the
  // interactive search of `quorvi`, from the words typed in GNOME Shell.
  static bool launchSearch(const std::string& desktopEntryId, const std::vector<std::string>& terms);
  // Puts the text on the clipboard: Klipper's D-Bus call where KDE runs,
  // else wl-copy (Wayland) or xclip (X11) started without a shell.
  static bool copyToClipboard(const std::string& text);
};

}  // namespace quorvi

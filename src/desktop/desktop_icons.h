// Icon names for desktop results, as the desktop's icon theme names them:
// applications by their desktop entry's Icon, files by their MIME type
// (shared-mime-info, guessed from the name, never read), folders, Zotero
// items and contacts by fixed names.
#pragma once

#include <string>

#include "desktop/desktop_search.h"

namespace quorvi {

std::string iconNameFor(const DesktopResult& result);

}  // namespace quorvi

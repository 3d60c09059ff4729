// What the app index reads from files other programs write: desktop entries,
// .strings files, the simulator listing, GNOME Shell's application state,
// the recently-used list's applications and the extension names resource.
// The first byte picks the reader.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "apps/bundle_reader.h"
#include "apps/desktop_entry.h"
#include "apps/emulators.h"
#include "apps/last_used.h"
#include "apps/settings_extensions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 6) {
    case 0:
      if (auto entry = quorvi::parseDesktopEntry(bytes, "fuzz.desktop", "/fuzz.desktop")) {
        entry->urlSchemes();
        entry->idStem();
      }
      break;
    case 1: quorvi::parseStringsText(bytes); break;
    case 2: quorvi::parseSimulatorList(bytes); break;
    case 3: quorvi::parseGnomeApplicationState(bytes); break;
    case 4: quorvi::parseRecentlyUsedApplications(bytes); break;
    case 5: quorvi::parseExtensionLocalizedNames(bytes); break;
  }
  return 0;
}

// Settings extensions: which extension bundles of the settings locations are
// left out, and the names they are shown under. The names come from the
// resource "system_settings_extension_localized_names.json" (an array of
// {"extension": bundle file name, "ch": Chinese name, "en": English name}),
// read once per index; a missing or unreadable resource gives no names.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

struct VenturaSystemExtensionLocalizedName {
  std::string appex;     // the bundle's file name, "Bluetooth.appex"
  std::string nameOfCh;
  std::string nameOfEn;
};

// Bundle file names never listed (helpers, intents, thumbnails, wallpapers,
// and the bare ".appex"), matched exactly.
bool isExcludedExtension(std::string_view bundleFileName);

std::vector<VenturaSystemExtensionLocalizedName> readExtensionLocalizedNames(const std::string& resourceDirectory);
std::vector<VenturaSystemExtensionLocalizedName> parseExtensionLocalizedNames(std::string_view json);

// The name of the extension: the Chinese one when the first preferred
// language begins with "zh", else the English one; nothing when the list
// does not know the bundle.
std::optional<std::string> extensionDisplayName(const std::vector<VenturaSystemExtensionLocalizedName>& names,
                                                std::string_view bundleFileName,
                                                std::string_view firstPreferredLanguage);

}  // namespace quorvi

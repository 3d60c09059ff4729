#include "apps/settings_extensions.h"

#include <algorithm>
#include <array>

#include "common/json.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

constexpr std::string_view kExcludedExtensions[] = {
    "AboutSettingsIntents.appex", "AccessibilitySettingsWidgetExtension.appex",
    "AirDropHandoffIntentsExtension.appex", "Album Artwork.appex", "AppearanceIntentsExtension.appex",
    "AppExtensionManagement.appex", "AppleAccountIntents_macOS.appex",
    "AssistantSettingsControlsExtension.appex", "AudiovisualThumbnailExtension.appex",
    "BatterySettingsIntentsExtension.appex", "BiomeLibraryEventUploader.appex",
    "BiometricsAndPasswordSettingsAppIntentsExtension.appex", "BitacoraWorker.appex",
    "BluetoothSettingsAppIntentsWidgetExtension.appex", "CalendarThumbnailExtension.appex",
    "ClassKitAppIntents.appex", "ClassroomDeviceExpert.appex", "ClippingsThumbnailExtension.appex",
    "com.apple.fskit.exfat.appex", "com.apple.fskit.msdos.appex", "com.apple.mlhost.CloudWorker.appex",
    "com.apple.mlhost.SampleWorker.appex", "com.apple.mlhost.TelemetryWorker.appex",
    "ComposeReviewExtension.appex", "Computer Name.appex", "ConfigurationProfilesFollowUpExtension.appex",
    "ContactThumbnailExtension.appex", "ControlCenterSettingsIntents.appex", "DateTimeIntentsExtension.appex",
    "DefaultExtensionEnablement.appex", "DesktopSettingsIntents.appex", "DevicePropertiesExtension.appex",
    "DisplaysSettingsIntentsExtension.appex", "DoNotDisturbAppIntents.appex", "ExperimentationExtension.appex",
    "FaceTimeNotificationExtension.appex", "FamilyIntents.appex", "FedStatsMLHostPlugin.appex",
    "FedStatsMLHostPluginClassA.appex", "FedStatsMLHostPluginClassB.appex", "FontThumbnailExtension.appex",
    "FSKitModuleManagement.appex", "GameCenterSettingsDeviceExpertExtension.appex",
    "HeadphoneSettingsExtension.appex", "IEMetricsWorker.appex", "IFTelemetrySELFIngestor.appex",
    "iLifeSlideshows.appex", "ImageThumbnailExtension.appex", "InferenceProviderService.appex",
    "InternationalSettingsExtension.appex", "KeyboardSettingsIntents.appex", "LegacyPluginEnablement.appex",
    "LockScreenIntentsExtension.appex", "LoginItemsIntentsExtension.appex", "MADViewServiceExtension.appex",
    "MetricsExtension.appex", "MKRemoteUI.appex", "MouseIntentsExtension.appex", "NetworkSettingsIntents.appex",
    "NewDeviceOutreachIntents_macOS.appex", "NotificationsSettingsIntents.appex",
    "OfficeThumbnailExtension.appex", "PackageThumbnailExtension.appex", "PaperKitExtension.appex",
    "PasswordManagerAppIntentsExtension.appex", "PasswordSettingsAppIntentsExtension.appex",
    "PasswordsSettingsExtension.appexlist", "PlatformSSOToken.appex", "PnROnDeviceWorker.appex",
    "PrinterScannerIntentsExtension.appex", "PrivateMLClientInferenceProviderService.appex",
    "ProfilesSettingsIntents.appex", "RepackagingWorker.appex", "SafariAssistantWorker.appex",
    "ScreenSaverIntentsExtension.appex", "SearchToolExtension.appex", "SecurityPrivacyIntentsExtension.appex",
    "SettingsSystemExtensionController.appex", "SharingIntents.appex", "SiriCoreMetricsWorker.appex",
    "SiriSuggestionsLightHousePlugin.appex", "SiriTurnRestatementExtension.appex", "SiriUserSegmentation.appex",
    "SoftwareUpdateSettingsWidgetExtension.appex", "SoundIntentsExtension.appex",
    "SpotlightSettingsIntentsExtension.appex", "StartupDiskWidgetExtension.appex",
    "StorageSettingsIntentsExtension.appex", "SummarizationTool.appex", "TextThumbnailExtension.appex",
    "TimeMachineSettingsIntents.appex", "TrackpadIntentsExtension.appex", "TransferResetIntentsExtension.appex",
    "TranslationAPISupportExtension.appex", "TransparencySettingsIntents.appex",
    "UsersGroupsIntentsExtension.appex", "VPNAppIntentWidgetExtension.appex",
    "WallpaperCAPackageExtension.appex", "WallpaperDynamicExtension.appex", "WallpaperGradientExtension.appex",
    "WallpaperImageExtension.appex", "WallpaperIntentsExtension.appex", "WallpaperMacintoshExtension.appex",
    "WallpaperMontereyExtension.appex", "WallpaperSequoiaExtension.appex", "WallpaperVenturaExtension.appex",
    "WallpaperVideoExtension.appex", "WebThumbnailExtension.appex", "Word of the Day.appex",
    "ZeoliteExtension.appex", "EventKitUIRemoteUIExtension.appex", "Arabesque.appex", "Drift.appex",
    "Flurry.appex", "Hello.appex", "Monterey.appex", "Shell.appex", "Ventura.appex", ".appex",
};

}  // namespace

bool isExcludedExtension(std::string_view bundleFileName) {
  return std::find(std::begin(kExcludedExtensions), std::end(kExcludedExtensions), bundleFileName) !=
         std::end(kExcludedExtensions);
}

std::vector<VenturaSystemExtensionLocalizedName> parseExtensionLocalizedNames(std::string_view text) {
  std::vector<VenturaSystemExtensionLocalizedName> names;
  Json json = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!json.is_array()) return names;
  for (const auto& item : json) {
    if (!item.is_object() || !item.contains("extension") || !item["extension"].is_string()) continue;
    VenturaSystemExtensionLocalizedName name;
    name.appex = item["extension"].get<std::string>();
    if (item.contains("ch") && item["ch"].is_string()) name.nameOfCh = item["ch"].get<std::string>();
    if (item.contains("en") && item["en"].is_string()) name.nameOfEn = item["en"].get<std::string>();
    names.push_back(std::move(name));
  }
  return names;
}

std::vector<VenturaSystemExtensionLocalizedName> readExtensionLocalizedNames(const std::string& resourceDirectory) {
  auto bytes = readRegularFile(resourceDirectory + "/apps/system_settings_extension_localized_names.json",
                               kSmallTextFileCap);
  return bytes ? parseExtensionLocalizedNames(*bytes) : std::vector<VenturaSystemExtensionLocalizedName>{};
}

std::optional<std::string> extensionDisplayName(const std::vector<VenturaSystemExtensionLocalizedName>& names,
                                                std::string_view bundleFileName,
                                                std::string_view firstPreferredLanguage) {
  for (const auto& name : names) {
    if (name.appex != bundleFileName) continue;
    const std::string& chosen = firstPreferredLanguage.starts_with("zh") ? name.nameOfCh : name.nameOfEn;
    if (chosen.empty()) return std::nullopt;
    return chosen;
  }
  return std::nullopt;
}

}  // namespace quorvi

// The sources of a scan on folders the tests build: desktop entries,
// bundles and settings extensions, emulators, last-used records.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "app_fixture.h"
#include "apps/app_records.h"
#include "apps/app_scan.h"
#include "apps/bundle_reader.h"
#include "apps/emulators.h"

namespace quorvi {
namespace {

using testing::AppFixture;
using testing::xmlPlist;
namespace fs = std::filesystem;

std::string fixtureFile(const std::string& name) {
  std::ifstream in(std::string(QUORVI_APPS_FIXTURES) + "/" + name, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Copies, so that the map outlives the list it came from.
std::map<std::string, std::shared_ptr<const AppEntry>> byPath(const std::vector<AppEntry>& entries) {
  std::map<std::string, std::shared_ptr<const AppEntry>> map;
  for (const auto& entry : entries) map[entry.path] = std::make_shared<const AppEntry>(entry);
  return map;
}

std::string utf16le(const std::string& ascii) {
  std::string out = "\xFF\xFE";
  for (char c : ascii) {
    out += c;
    out += '\0';
  }
  return out;
}

TEST(DesktopEntryApps, WhatTheMenusShowAndTheSettingsPanels) {
  AppFixture fixture;
  std::string shown = fixture.writeSystemEntry(
      "org.example.Browser.desktop",
      AppFixture::entryText("Web Browser", "Name[zh_CN]=网页浏览器\nGenericName=Browser\nGenericName[zh_CN]=浏览器\n"
                                           "Keywords=internet;www;\nMimeType=text/html;x-scheme-handler/https;\n"));
  fixture.writeSystemEntry("nodisplay.desktop", AppFixture::entryText("Helper", "NoDisplay=true\n"));
  fixture.writeSystemEntry("kdeonly.desktop", AppFixture::entryText("KDE Thing", "OnlyShowIn=KDE;\n"));
  fixture.writeSystemEntry("tryexec.desktop", AppFixture::entryText("Missing", "TryExec=qv-no-such-program\n"));
  fixture.writeSystemEntry("link.desktop", "[Desktop Entry]\nType=Link\nName=Site\nURL=https://example.org\n");
  std::string panel = fixture.writeSystemEntry(
      "gnome-network-panel.desktop",
      AppFixture::entryText("Network", "NoDisplay=true\nX-GNOME-Settings-Panel=network\nOnlyShowIn=GNOME;\n"));
  std::string kcm = fixture.writeSystemEntry(
      "kcm_kscreen.desktop",
      "[Desktop Entry]\nType=Application\nName=Display\nExec=systemsettings kcm_kscreen\nNoDisplay=true\n");
  AppEnvironment environment = fixture.environment();
  environment.currentDesktops = {"GNOME"};
  DesktopCatalog catalog(environment.applicationDirectories());
  LastUsedRecords lastUsed;
  lastUsed.byDesktopId["org.example.Browser.desktop"] = 1700000000;
  auto apps = desktopEntryApps(*catalog.snapshot(), environment, lastUsed);
  auto paths = byPath(apps);
  EXPECT_EQ(paths.size(), 3u);
  ASSERT_TRUE(paths.count(shown) && paths.count(panel) && paths.count(kcm));
  const AppEntry& browser = *paths[shown];
  EXPECT_EQ(browser.bundleIdentifier, "org.example.Browser.desktop");
  EXPECT_EQ(browser.category, AppCategory::application);
  EXPECT_EQ(browser.nameOfDisplay, "Web Browser");
  EXPECT_EQ(browser.urlSchemes, std::vector<std::string>{"https"});
  EXPECT_EQ(browser.timestampOfLastUsed, 1700000000);
  for (const char* match : {"browser", "internet", "www", "webbrowser"}) {
    EXPECT_NE(std::find(browser.matchs.begin(), browser.matchs.end(), match), browser.matchs.end()) << match;
  }
  EXPECT_EQ(paths[panel]->category, AppCategory::venturaSettingsExtension);
  EXPECT_EQ(paths[kcm]->category, AppCategory::venturaSettingsExtension);
  EXPECT_FALSE(paths[panel]->urlSchemes);
  EXPECT_EQ(paths[panel]->timestampOfLastUsed, 0);

  // In Chinese: the Chinese name with its pinyin, the Chinese generic name.
  environment.language = SupportedLanguage::chinese;
  environment.currentDesktops = {"KDE"};  // the GNOME panel goes, the KDE-only entry comes
  auto chinese = byPath(desktopEntryApps(*catalog.snapshot(), environment, {}));
  ASSERT_TRUE(chinese.count(shown));
  EXPECT_EQ(chinese[shown]->nameOfDisplay, "网页浏览器");
  EXPECT_TRUE(chinese[shown]->hasPinyin);
  EXPECT_NE(std::find(chinese[shown]->matchs.begin(), chinese[shown]->matchs.end(), "浏览器"), chinese[shown]->matchs.end());
  EXPECT_NE(std::find(chinese[shown]->matchs.begin(), chinese[shown]->matchs.end(), "wangyeliulanqi"),
            chinese[shown]->matchs.end());
  EXPECT_EQ(chinese.count(panel), 0u);
  EXPECT_EQ(chinese.count(fixture.systemApplications() + "/kdeonly.desktop"), 1u);
}

class BundleScan : public ::testing::Test {
 protected:
  void SetUp() override {
    environment_ = fixture_.environment();
    system_ = environment_.systemRoot;
  }
  std::vector<AppEntry> scan(const std::vector<std::string>& scopes) {
    BundleScanContext context{environment_, names_};
    return bundleApps(scopes, context);
  }
  AppFixture fixture_;
  AppEnvironment environment_;
  std::string system_;
  std::vector<VenturaSystemExtensionLocalizedName> names_ = {
      {"Bluetooth.appex", "蓝牙", "Bluetooth"}, {"Sound.prefPane", "声音", "Sound"}};
};

TEST_F(BundleScan, ApplicationsWithAndWithoutUrlTypes) {
  std::string scope = fixture_.root() + "/Applications";
  std::string mail = fixture_.writeBundle(
      scope + "/Mail.app",
      "<key>CFBundleIdentifier</key><string>com.example.mail</string>"
      "<key>CFBundleDisplayName</key><string>Mail Client</string>"
      "<key>CFBundleURLTypes</key><array>"
      "<dict><key>CFBundleURLName</key><string>mail</string><key>CFBundleURLSchemes</key>"
      "<array><string>mailto</string><string>message</string></array></dict>"
      "<dict><key>CFBundleURLSchemes</key><array><string>x-mail</string></array></dict>"
      "<dict><key>CFBundleURLName</key><string>no schemes</string></dict>"
      "</array>");
  std::string plain = fixture_.writeBundle(scope + "/Utilities/Plain Tool.app",
                                           "<key>CFBundleIdentifier</key><string>com.example.plain</string>");
  std::string noPlist = fixture_.write("Applications/Bare.app/Contents/MacOS/bare", "binary");
  std::string tooDeep = fixture_.writeBundle(scope + "/a/b/c/Deep.app", "");
  fixture_.writeBundle(scope + "/Mail.app/Contents/Helpers/Inner.app", "");  // bundles are not entered
  fixture_.writeBundle(scope + "/Share.appex", "");  // extensions outside the settings locations are not apps
  fixture_.writeBundle(scope + "/.Hidden.app", "");
  auto entries = scan({scope});
  auto paths = byPath(entries);
  EXPECT_EQ(paths.size(), 3u);
  ASSERT_TRUE(paths.count(mail) && paths.count(plain) && paths.count(scope + "/Bare.app"));
  EXPECT_EQ(paths[mail]->nameOfDisplay, "Mail Client");
  EXPECT_EQ(paths[mail]->bundleIdentifier, "com.example.mail");
  EXPECT_EQ(paths[mail]->urlSchemes, (std::vector<std::string>{"mailto", "message", "x-mail"}));
  EXPECT_EQ(paths[plain]->nameOfDisplay, "Plain Tool");  // the folder's name, suffix removed
  EXPECT_FALSE(paths[plain]->urlSchemes);
  EXPECT_FALSE(paths[plain]->toJson().contains("urlSchemes"));
  EXPECT_EQ(paths[scope + "/Bare.app"]->bundleIdentifier, "");
  EXPECT_EQ(paths.count(tooDeep), 0u);
  (void)noPlist;
}

TEST_F(BundleScan, LocalizedDisplayNames) {
  std::string scope = fixture_.root() + "/Applications";
  std::string app = fixture_.writeBundle(scope + "/Notes.app",
                                         "<key>CFBundleDisplayName</key><string>Notes</string>"
                                         "<key>CFBundleDevelopmentRegion</key><string>en</string>");
  fixture_.write("Applications/Notes.app/Contents/Resources/zh-Hans.lproj/InfoPlist.strings",
                 "/* Localized */\n\"CFBundleDisplayName\" = \"备忘录\";\nCFBundleName = \"Notes \\\"x\\\"\";\n");
  fixture_.write("Applications/Notes.app/Contents/Resources/zh_TW.lproj/InfoPlist.strings",
                 utf16le("\"CFBundleDisplayName\" = \"Notes TW\";\n"));
  fixture_.write("Applications/Notes.app/Contents/Resources/en.lproj/InfoPlist.strings",
                 xmlPlist("<key>CFBundleDisplayName</key><string>Notes (en)</string>"));
  auto nameIn = [&](SupportedLanguage language) {
    environment_.language = language;
    auto entries = scan({scope});
    return entries.size() == 1 ? entries[0].nameOfDisplay : std::string("?");
  };
  EXPECT_EQ(nameIn(SupportedLanguage::chinese), "备忘录");
  EXPECT_EQ(nameIn(SupportedLanguage::traditionChinese), "Notes TW");
  EXPECT_EQ(nameIn(SupportedLanguage::english), "Notes (en)");
  EXPECT_EQ(parseStringsText("a = b; \"c d\" = \"e\\nf\"; // tail\n\"u\" = \"\\U00e9\";"),
            (std::map<std::string, std::string>{{"a", "b"}, {"c d", "e\nf"}, {"u", "é"}}));
  EXPECT_TRUE(parseStringsText("\"unterminated = ").empty());
  (void)app;
}

TEST_F(BundleScan, SettingsExtensionsExclusionsAndTheirNames) {
  std::string extensions = system_ + "/System/Library/ExtensionKit/Extensions";
  std::string bluetooth = fixture_.writeBundle(extensions + "/Bluetooth.appex",
                                               "<key>CFBundleIdentifier</key><string>com.example.bt</string>");
  std::string unnamed = fixture_.writeBundle(extensions + "/Keyboard.appex",
                                             "<key>CFBundleDisplayName</key><string>Keyboard</string>");
  fixture_.writeBundle(extensions + "/WallpaperVideoExtension.appex", "");  // on the exclusion list
  fixture_.writeBundle(extensions + "/Word of the Day.appex", "");          // so is this
  fixture_.writeBundle(extensions + "/.appex", "");
  std::string sound = fixture_.writeBundle(system_ + "/Library/PreferencePanes/Sound.prefPane", "");
  // An appexlist names further extensions, by absolute or relative path.
  std::string listed = fixture_.writeBundle(fixture_.root() + "/elsewhere/Listed.appex",
                                            "<key>CFBundleDisplayName</key><string>Listed</string>");
  fixture_.writeBundle(system_ + "/System/Library/PrivateFrameworks/Settings.framework/PlugIns/Rel/Rel.appex",
                       "<key>CFBundleDisplayName</key><string>Relative</string>");
  fixture_.write("system/System/Library/PrivateFrameworks/Settings.framework/PlugIns/More.appexlist",
                 xmlPlist("<key>AppExtensions</key><array><string>" + listed +
                          "</string><dict><key>Path</key><string>Rel/Rel.appex</string></dict>"
                          "<integer>3</integer></array>"));
  fixture_.write("system/System/Library/PrivateFrameworks/Settings.framework/PlugIns/PasswordsSettingsExtension.appexlist",
                 xmlPlist("<key>AppExtensions</key><array><string>" + listed + "2</string></array>"));
  environment_.firstPreferredLanguage = "zh-Hans-CN";
  auto paths = byPath(scan({}));
  std::string relative = system_ + "/System/Library/PrivateFrameworks/Settings.framework/PlugIns/Rel/Rel.appex";
  EXPECT_EQ(paths.size(), 5u);
  ASSERT_TRUE(paths.count(bluetooth) && paths.count(unnamed) && paths.count(sound) && paths.count(listed) &&
              paths.count(relative));
  EXPECT_EQ(paths[bluetooth]->nameOfDisplay, "蓝牙");
  EXPECT_EQ(paths[bluetooth]->category, AppCategory::venturaSettingsExtension);
  EXPECT_EQ(paths[sound]->nameOfDisplay, "声音");
  EXPECT_EQ(paths[unnamed]->nameOfDisplay, "Keyboard");  // not in the names list: its own name
  EXPECT_EQ(paths[relative]->nameOfDisplay, "Relative");
  environment_.firstPreferredLanguage = "en-US";
  EXPECT_EQ(byPath(scan({}))[bluetooth]->nameOfDisplay, "Bluetooth");
  environment_.firstPreferredLanguage = "zh-Hant-TW";  // any "zh" takes the Chinese name
  EXPECT_EQ(byPath(scan({}))[bluetooth]->nameOfDisplay, "蓝牙");

  EXPECT_TRUE(isExcludedExtension("Album Artwork.appex"));
  EXPECT_TRUE(isExcludedExtension(".appex"));
  EXPECT_FALSE(isExcludedExtension("album artwork.appex"));  // exact names only
  auto parsedNames = parseExtensionLocalizedNames(
      R"([{"extension":"A.appex","ch":"甲","en":"A"},{"ch":"no extension"},{"extension":"B.appex","en":"B"},7])");
  ASSERT_EQ(parsedNames.size(), 2u);
  EXPECT_EQ(extensionDisplayName(parsedNames, "A.appex", "zh-Hans"), "甲");
  EXPECT_FALSE(extensionDisplayName(parsedNames, "B.appex", "zh-Hans"));  // no Chinese name given
  EXPECT_TRUE(parseExtensionLocalizedNames("not json").empty());
  EXPECT_TRUE(readExtensionLocalizedNames("/nonexistent").empty());
  EXPECT_FALSE(readExtensionLocalizedNames(std::string(QUORVI_SOURCE_RESOURCES)).empty());
}

TEST_F(BundleScan, CoreServicesOffersOnlyItsApplicationsFinderAndAddPrinter) {
  std::string core = system_ + "/System/Library/CoreServices";
  std::string finder = fixture_.writeBundle(core + "/Finder.app", "");
  std::string printer = fixture_.writeBundle(core + "/AddPrinter.app", "");
  std::string other = fixture_.writeBundle(core + "/Dock.app", "");
  std::string utility = fixture_.writeBundle(core + "/Applications/Directory Utility.app", "");
  std::string outside = fixture_.writeBundle(fixture_.root() + "/Apps/Dock.app", "");
  auto paths = byPath(scan({fixture_.root() + "/Apps"}));
  EXPECT_EQ(paths.size(), 4u);
  EXPECT_TRUE(paths.count(finder) && paths.count(printer) && paths.count(utility) && paths.count(outside));
  EXPECT_EQ(paths.count(other), 0u);
  BundleScanContext context{environment_, names_};
  EXPECT_FALSE(bundleApp(other, context));
  EXPECT_TRUE(bundleApp(outside, context));
  EXPECT_EQ(enclosingBundle("/a/B.app/Contents/Info.plist"), "/a/B.app");
  EXPECT_EQ(enclosingBundle("/a/x.appex"), "/a/x.appex");
  EXPECT_FALSE(enclosingBundle("/a/.app/x"));
  EXPECT_FALSE(enclosingBundle("/a/b"));
}

TEST(Emulators, SimulatorListing) {
  auto devices = parseSimulatorList(fixtureFile("simctl_devices.json"));
  ASSERT_EQ(devices.size(), 3u);
  std::map<std::string, EmulatorDevice> byName;
  for (const auto& device : devices) byName[device.name] = device;
  EXPECT_EQ(byName["iPhone 15"].path,
            "/Users/dev/Library/Developer/CoreSimulator/Devices/5B1F7C8E-8A4E-4B0E-9C0A-1D2E3F4A5B6C");
  EXPECT_EQ(byName["iPhone 15"].identifier, "5B1F7C8E-8A4E-4B0E-9C0A-1D2E3F4A5B6C");
  EXPECT_EQ(byName["iPhone 15"].runtime, "iOS 17.0");
  EXPECT_EQ(byName["Apple Watch Series 9 (45mm)"].runtime, "watchOS 10.0");
  EXPECT_EQ(readableRuntimeName("com.apple.CoreSimulator.SimRuntime.xrOS-1-0"), "xrOS 1.0");
  EXPECT_EQ(readableRuntimeName("custom"), "custom");
  for (const char* broken : {"", "not json", "[]", "{\"devices\": []}", "{\"devices\": {\"r\": 5}}"}) {
    EXPECT_TRUE(parseSimulatorList(broken).empty()) << broken;
  }
}

TEST(Emulators, TheListingToolRunsWithAWatchdog) {
  AppFixture fixture;
  std::string bin = fixture.root() + "/bin";
  std::string fake = fixture.write("bin/fakesimctl", "#!/bin/sh\ncat '" + std::string(QUORVI_APPS_FIXTURES) +
                                                         "/simctl_devices.json'\n");
  std::string slow = fixture.write("bin/slowsimctl", "#!/bin/sh\nexec sleep 10\n");
  ::chmod(fake.c_str(), 0755);
  ::chmod(slow.c_str(), 0755);
  EXPECT_EQ(listSimulators("fakesimctl list -j devices available", {bin}).size(), 3u);
  EXPECT_TRUE(listSimulators("fakesimctl list", {"/nonexistent"}).empty());  // no tool, nothing run
  EXPECT_TRUE(listSimulators("", {bin}).empty());
  auto started = std::chrono::steady_clock::now();
  EXPECT_TRUE(listSimulators("slowsimctl", {bin}, std::chrono::milliseconds(300)).empty());
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(8));
}

TEST(Emulators, AndroidVirtualDevices) {
  AppFixture fixture;
  std::string avd = fixture.root() + "/home/.android/avd";
  fixture.write("home/.android/avd/Pixel_7_API_34.ini", "avd.ini.encoding=UTF-8\npath=" + avd +
                                                            "/Pixel_7_API_34.avd\npath.rel=avd/Pixel_7_API_34.avd\ntarget=android-34\n");
  fixture.write("home/.android/avd/Pixel_7_API_34.avd/config.ini", "avd.ini.displayname=Pixel 7 API 34\nhw.ramSize=2048\n");
  // Moved home: the absolute path is stale, the relative one holds.
  fixture.write("home/.android/avd/Tablet_Test.ini", "path=/old/home/.android/avd/Tablet_Test.avd\r\npath.rel=avd/Tablet_Test.avd\r\n");
  fixture.write("home/.android/avd/Tablet_Test.avd/config.ini", "hw.lcd.density=320\n");
  fixture.write("home/.android/avd/Gone.ini", "path=/nonexistent/Gone.avd\n");
  auto devices = listAndroidVirtualDevices({avd, fixture.root() + "/missing"});
  ASSERT_EQ(devices.size(), 2u);
  EXPECT_EQ(devices[0].name, "Pixel 7 API 34");
  EXPECT_EQ(devices[0].path, avd + "/Pixel_7_API_34.avd");
  EXPECT_EQ(devices[0].identifier, "Pixel_7_API_34");
  EXPECT_EQ(devices[0].runtime, "android-34");
  EXPECT_EQ(devices[1].name, "Tablet Test");
  EXPECT_EQ(devices[1].path, avd + "/Tablet_Test.avd");

  AppEnvironment environment = fixture.environment();
  environment.androidDeviceDirectories = {avd};
  auto apps = emulatorApps(environment);
  ASSERT_EQ(apps.size(), 2u);
  EXPECT_EQ(apps[0].category, AppCategory::xcodeSimulator);
  EXPECT_EQ(apps[0].bundleIdentifier, kAndroidEmulatorIdentifier);
  EXPECT_NE(std::find(apps[0].matchs.begin(), apps[0].matchs.end(), "pixel_7_api_34"), apps[0].matchs.end());
}

TEST(LastUsed, EachSourceAndTheMostRecentWins) {
  auto gnome = parseGnomeApplicationState(
      "<?xml version=\"1.0\"?>\n<application-state>\n  <context id=\"\">\n"
      "    <application id=\"org.example.Editor.desktop\" open-window-count=\"0\" score=\"4\" last-seen=\"1700000100\"/>\n"
      "    <application id=\"other.desktop\" score=\"1\" last-seen=\"1600000000\"/>\n"
      "  </context>\n  <context id=\"work\">\n"
      "    <application id=\"org.example.Editor.desktop\" score=\"2\" last-seen=\"1700000200\"/>\n"
      "  </context>\n</application-state>\n");
  EXPECT_EQ(gnome, (std::map<std::string, double>{{"org.example.Editor.desktop", 1700000200}, {"other.desktop", 1600000000}}));
  EXPECT_TRUE(parseGnomeApplicationState("<not closed").empty());

  AppFixture fixture;
  std::string database = fixture.root() + "/database";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(database.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "CREATE TABLE ResourceScoreCache (usedActivity TEXT, initiatingAgent TEXT, "
                         "targettedResource TEXT, scoreType INTEGER, cachedScore FLOAT, firstUpdate INTEGER, "
                         "lastUpdate INTEGER);"
                         "INSERT INTO ResourceScoreCache VALUES ('a','org.kde.plasmashell','applications:org.kde.konsole',0,3,1,1700000300);"
                         "INSERT INTO ResourceScoreCache VALUES ('b','org.kde.plasmashell','applications:org.kde.konsole',0,3,1,1700000050);"
                         "INSERT INTO ResourceScoreCache VALUES ('a','x','applications:kate.desktop',0,3,1,1700000400);"
                         "INSERT INTO ResourceScoreCache VALUES ('a','x','file:///home/u/doc.txt',0,3,1,1700000500);",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  EXPECT_EQ(readKdeResourceScores(database),
            (std::map<std::string, double>{{"org.kde.konsole.desktop", 1700000300}, {"kate.desktop", 1700000400}}));
  EXPECT_TRUE(readKdeResourceScores(fixture.root() + "/missing").empty());
  EXPECT_TRUE(readKdeResourceScores(fixture.write("notadb", "plain text")).empty());

  std::string xbel =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<xbel version=\"1.0\" xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\" "
      "xmlns:mime=\"http://www.freedesktop.org/standards/shared-mime-info\">\n"
      "<bookmark href=\"file:///home/u/a.txt\" added=\"2023-11-14T22:00:00Z\" modified=\"2023-11-14T22:00:00Z\" "
      "visited=\"2023-11-14T22:00:00Z\"><info><metadata owner=\"http://freedesktop.org\">"
      "<mime:mime-type type=\"text/plain\"/><bookmark:applications>"
      "<bookmark:application name=\"Text Editor\" exec=\"&apos;gnome-text-editor %u&apos;\" "
      "modified=\"2023-11-15T00:00:00Z\" count=\"2\"/>"
      "<bookmark:application name=\"mpv\" exec=\"&apos;mpv %u&apos;\" modified=\"2023-11-10T00:00:00Z\" count=\"1\"/>"
      "</bookmark:applications></metadata></info></bookmark>\n</xbel>\n";
  auto recent = parseRecentlyUsedApplications(xbel);
  ASSERT_EQ(recent.size(), 2u);
  EXPECT_TRUE(parseRecentlyUsedApplications("<xbel><broken").empty());

  LastUsedRecords records;
  records.byDesktopId = gnome;
  records.recentApplications = recent;
  auto entryOf = [](const std::string& id, const std::string& name, const std::string& exec) {
    return *parseDesktopEntry("[Desktop Entry]\nType=Application\nName=" + name + "\nExec=" + exec + "\n", id, "/x/" + id);
  };
  EXPECT_EQ(records.lastUsed(entryOf("org.example.Editor.desktop", "Editor", "editor")), 1700000200);
  // Named by the recently-used file (its Exec program), newer than nothing.
  EXPECT_EQ(records.lastUsed(entryOf("org.gnome.TextEditor.desktop", "Text Editor", "gnome-text-editor %U")),
            1700006400);
  EXPECT_EQ(records.lastUsed(entryOf("io.mpv.Mpv.desktop", "mpv Media Player", "/usr/bin/mpv -- %U")), 1699574400);
  EXPECT_EQ(records.lastUsed(entryOf("never.desktop", "Never", "never")), 0);
  // GNOME's time is newer than the recently-used one: it wins.
  records.byDesktopId["io.mpv.Mpv.desktop"] = 1699999999;
  EXPECT_EQ(records.lastUsed(entryOf("io.mpv.Mpv.desktop", "mpv Media Player", "mpv")), 1699999999);

  // The reader combines the sources and reads a file again when it changes.
  std::string state = fixture.write("state.xml", "<application-state><context id=\"\">"
                                                 "<application id=\"kate.desktop\" last-seen=\"1700000999\"/>"
                                                 "</context></application-state>");
  LastUsedReader reader(state, database, fixture.write("recent.xbel", xbel));
  auto combined = reader.records();
  EXPECT_EQ(combined.byDesktopId["kate.desktop"], 1700000999);
  EXPECT_EQ(combined.byDesktopId["org.kde.konsole.desktop"], 1700000300);
  EXPECT_EQ(combined.recentApplications.size(), 2u);
  fixture.write("state.xml", "<application-state><context id=\"\">"
                             "<application id=\"kate.desktop\" last-seen=\"18000000000\"/>"
                             "</context></application-state>");
  EXPECT_EQ(reader.records().byDesktopId["kate.desktop"], 18000000000.0);
}

TEST(InstalledAppRecords, DesktopFilesAndBundles) {
  AppFixture fixture;
  std::string desktop = fixture.writeUserEntry(
      "org.example.Notes.desktop",
      AppFixture::entryText("Notes", "Name[zh_CN]=笔记\nCategories=Office;TextEditor;\nVersion=1.5\n"));
  auto record = installedAppRecord(desktop, SupportedLanguage::chinese);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->desktopId, "org.example.Notes.desktop");
  EXPECT_EQ(record->bundleIdentifier, "org.example.Notes.desktop");
  EXPECT_EQ(record->name, "笔记");
  EXPECT_EQ(record->categories, (std::vector<std::string>{"Office", "TextEditor"}));
  EXPECT_EQ(record->version, "");  // Version is the format's, not the application's
  std::string bundle = fixture.writeBundle(
      fixture.root() + "/Apps/Tool.app",
      "<key>CFBundleIdentifier</key><string>com.example.tool</string>"
      "<key>CFBundleShortVersionString</key><string>2.4.1</string><key>CFBundleVersion</key><string>241</string>"
      "<key>LSApplicationCategoryType</key><string>public.app-category.developer-tools</string>");
  record = installedAppRecord(bundle, SupportedLanguage::english);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->desktopId, "");
  EXPECT_EQ(record->bundleIdentifier, "com.example.tool");
  EXPECT_EQ(record->name, "Tool");
  EXPECT_EQ(record->version, "2.4.1");
  EXPECT_EQ(record->categories, (std::vector<std::string>{"public.app-category.developer-tools"}));
  EXPECT_EQ(record->lastUsedTimestamp, 0);
  EXPECT_FALSE(installedAppRecord(fixture.root() + "/missing.desktop", SupportedLanguage::english));
  EXPECT_FALSE(installedAppRecord(fixture.write("plain.txt", "x"), SupportedLanguage::english));
}

}  // namespace
}  // namespace quorvi

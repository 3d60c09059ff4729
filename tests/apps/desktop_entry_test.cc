// Desktop entries as GLib reads them, and how the desktop shows them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <thread>

#include "app_fixture.h"
#include "apps/desktop_entry.h"

namespace quorvi {
namespace {

using testing::AppFixture;

DesktopEntry parsed(const std::string& text) {
  auto entry = parseDesktopEntry(text, "t.desktop", "/x/t.desktop");
  EXPECT_TRUE(entry) << text;
  return entry.value_or(DesktopEntry{});
}

TEST(DesktopEntryReading, NamesFollowEachLanguagesFallbacks) {
  DesktopEntry browser = parsed(
      "[Desktop Entry]\nType=Application\nExec=/bin/true\n"
      "Name=Web Browser\nName[zh_CN]=网页浏览器\nName[zh_TW]=網頁瀏覽器\nName[de]=Webbrowser\n"
      "GenericName=Browser\nGenericName[zh_CN]=浏览器\n"
      "Keywords=web;internet;\nKeywords[zh_CN]=网页;互联网;\n");
  EXPECT_EQ(browser.name.in(SupportedLanguage::english), "Web Browser");
  EXPECT_EQ(browser.name.in(SupportedLanguage::chinese), "网页浏览器");
  EXPECT_EQ(browser.name.in(SupportedLanguage::traditionChinese), "網頁瀏覽器");
  EXPECT_EQ(browser.genericName.in(SupportedLanguage::chinese), "浏览器");
  EXPECT_EQ(browser.genericName.in(SupportedLanguage::traditionChinese), "Browser");  // untranslated
  EXPECT_EQ(browser.keywords.in(SupportedLanguage::chinese), (std::vector<std::string>{"网页", "互联网"}));
  EXPECT_EQ(browser.keywords.in(SupportedLanguage::english), (std::vector<std::string>{"web", "internet"}));

  // Each language's order: zh_CN, zh_Hans, zh_SG, zh; zh_TW, zh_Hant, zh_HK, zh.
  auto names = [](const std::string& lines) {
    DesktopEntry entry = parsed("[Desktop Entry]\nType=Application\nName=Base\n" + lines);
    return std::make_pair(entry.name.in(SupportedLanguage::chinese), entry.name.in(SupportedLanguage::traditionChinese));
  };
  EXPECT_EQ(names("Name[zh]=通\nName[zh_SG]=新\nName[zh_Hans]=简\n"), std::make_pair(std::string("简"), std::string("通")));
  EXPECT_EQ(names("Name[zh]=通\nName[zh_SG]=新\n"), std::make_pair(std::string("新"), std::string("通")));
  EXPECT_EQ(names("Name[zh_HK]=港\nName[zh_Hant]=繁\n"), std::make_pair(std::string("Base"), std::string("繁")));
  EXPECT_EQ(names("Name[zh_HK]=港\n"), std::make_pair(std::string("Base"), std::string("港")));
  EXPECT_EQ(parsed("[Desktop Entry]\nType=Application\nName=Base\nName[en_US]=Color\nName[en]=Colour\n")
                .name.in(SupportedLanguage::english),
            "Color");
}

TEST(DesktopEntryReading, EscapesListsAndSchemeHandlers) {
  DesktopEntry entry = parsed(
      "# a comment\n[Desktop Entry]\nType=Application\nName=A\\sB\\\\C\\tD\n"
      "Keywords=semi\\;colon;plain;;\n"
      "MimeType=text/html;x-scheme-handler/http;x-scheme-handler/https;x-scheme-handler/http;x-scheme-handler/;\n"
      "Categories=Network;WebBrowser;\nExec=\"/opt/My App/run\" --flag %U\n"
      "[Desktop Action new]\nName=Other\nExec=other\n");
  EXPECT_EQ(entry.name.in(SupportedLanguage::english), "A B\\C\tD");
  EXPECT_EQ(entry.keywords.in(SupportedLanguage::english), (std::vector<std::string>{"semi;colon", "plain"}));
  EXPECT_EQ(entry.urlSchemes(), (std::vector<std::string>{"http", "https"}));
  EXPECT_EQ(entry.categories, (std::vector<std::string>{"Network", "WebBrowser"}));
  EXPECT_EQ(programOfExec(entry.exec), "/opt/My App/run");  // not the action's Exec
  EXPECT_EQ(entry.idStem(), "t");
  EXPECT_TRUE(parsed(AppFixture::entryText("No schemes")).urlSchemes().empty());
}

TEST(DesktopEntryReading, ExecPrograms) {
  EXPECT_EQ(programOfExec("env GDK_BACKEND=x11 LANG=C gedit %F"), "gedit");
  EXPECT_EQ(programOfExec("\"a\\\"b\" x"), "a\"b");
  EXPECT_EQ(programOfExec("'/opt/quoted path/app' --x"), "/opt/quoted path/app");
  EXPECT_EQ(execArguments("app --one \"two words\" %u"),
            (std::vector<std::string>{"app", "--one", "two words", "%u"}));
  EXPECT_FALSE(programOfExec(""));
  EXPECT_FALSE(programOfExec("env A=1"));
  EXPECT_FALSE(programOfExec("\"unterminated"));
}

TEST(DesktopEntryReading, BrokenFilesAreNoEntries) {
  for (const std::string& text : {
           std::string("no group at all\n"),
           std::string("[Other]\nType=Application\nName=X\n"),
           std::string("[Desktop Entry]\nName=No type\n"),
           std::string("[Desktop Entry]\nType=Application\nName[zh_CN]=只有译名\n"),  // no untranslated Name
           std::string("[Desktop Entry]\nType=Application\nName=X\nbroken line\n"),
           std::string("[Desktop Entry]\nType=Application\nName=\xff\xfe\n"),
           std::string("\xff\xfe[Desktop Entry\n=\n\0\0", 20),
           std::string(),
       }) {
    EXPECT_FALSE(parseDesktopEntry(text, "t.desktop", "/x/t.desktop")) << text;
  }
}

TEST(DesktopEntryReading, SettingsPanelsAndSandboxes) {
  EXPECT_EQ(parsed(AppFixture::entryText("Network", "X-GNOME-Settings-Panel=network\nNoDisplay=true\n"))
                .gnomeSettingsPanel,
            "network");
  DesktopEntry kcm = parsed(
      "[Desktop Entry]\nType=Application\nName=Display Configuration\nExec=systemsettings kcm_kscreen\n"
      "NoDisplay=true\nX-KDE-Keywords=monitor,screen;resolution\nX-KDE-Keywords[zh_CN]=显示器\n");
  EXPECT_TRUE(kcm.isKdeSettingsModule);
  EXPECT_TRUE(kcm.isSettingsPanel());
  EXPECT_EQ(kcm.keywords.in(SupportedLanguage::chinese), (std::vector<std::string>{"显示器"}));
  EXPECT_TRUE(parsed(AppFixture::entryText("M", "X-KDE-ServiceTypes=KService;KCModule\n")).isKdeSettingsModule);
  EXPECT_FALSE(parsed("[Desktop Entry]\nType=Application\nName=Settings\nExec=systemsettings\n").isSettingsPanel());
  DesktopEntry flatpak = parsed(AppFixture::entryText("Calc", "X-Flatpak=org.example.Calc\n"));
  EXPECT_EQ(flatpak.flatpakId, "org.example.Calc");
  EXPECT_EQ(parsed(AppFixture::entryText("Player", "X-SnapInstanceName=player\n")).snapInstanceName, "player");
}

// A FIFO named like an entry would block a plain open() until a writer
// came; the reader must refuse it at once.
TEST(DesktopEntryReading, AFifoNamedLikeAnEntryDoesNotBlock) {
  AppFixture fixture;
  std::string fifo = fixture.userApplications() + "/trap.desktop";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::atomic<bool> done{false};
  std::optional<DesktopEntry> result;
  std::thread reader([&] {
    result = readDesktopEntry(fifo, "trap.desktop");
    done = true;
  });
  bool finished = testing::waitUntil([&] { return done.load(); }, std::chrono::seconds(5));
  if (!finished) {
    int writer = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);  // lets a blocked reader go
    if (writer >= 0) ::close(writer);
  }
  reader.join();
  EXPECT_TRUE(finished) << "reading a FIFO blocked";
  EXPECT_FALSE(result);
  // A real entry beside it still reads.
  EXPECT_TRUE(readDesktopEntry(fixture.writeUserEntry("real.desktop", AppFixture::entryText("Real")), "real.desktop"));
  EXPECT_FALSE(readDesktopEntry(fixture.userApplications(), "folder.desktop"));  // a folder is no entry
}

TEST(DesktopEntryVisibility, DesktopsTryExecAndMenus) {
  DesktopEntry gnomeOnly = parsed(AppFixture::entryText("G", "OnlyShowIn=GNOME;\n"));
  EXPECT_TRUE(showsIn(gnomeOnly, {"ubuntu", "GNOME"}));
  EXPECT_FALSE(showsIn(gnomeOnly, {"KDE"}));
  EXPECT_FALSE(showsIn(gnomeOnly, {}));
  DesktopEntry notKde = parsed(AppFixture::entryText("K", "NotShowIn=KDE;\n"));
  EXPECT_FALSE(showsIn(notKde, {"KDE"}));
  EXPECT_TRUE(showsIn(notKde, {"XFCE"}));
  EXPECT_TRUE(showsIn(notKde, {}));
  DesktopEntry both = parsed(AppFixture::entryText("B", "OnlyShowIn=GNOME;\nNotShowIn=KDE;\n"));
  EXPECT_FALSE(showsIn(both, {"KDE", "GNOME"}));  // the first desktop named decides
  EXPECT_TRUE(showsIn(both, {"GNOME", "KDE"}));

  AppFixture fixture;
  std::string bin = fixture.root() + "/bin";
  std::string tool = fixture.write("bin/qvtool", "#!/bin/sh\n");
  ::chmod(tool.c_str(), 0755);
  fixture.write("bin/qvplain", "not executable");
  EXPECT_TRUE(tryExecFound(parsed(AppFixture::entryText("T", "TryExec=qvtool\n")), {"/nonexistent", bin}));
  EXPECT_FALSE(tryExecFound(parsed(AppFixture::entryText("T", "TryExec=qvtool\n")), {"/nonexistent"}));
  EXPECT_FALSE(tryExecFound(parsed(AppFixture::entryText("T", "TryExec=qvplain\n")), {bin}));
  EXPECT_TRUE(tryExecFound(parsed(AppFixture::entryText("T", "TryExec=" + tool + "\n")), {}));
  EXPECT_FALSE(tryExecFound(parsed(AppFixture::entryText("T", "TryExec=bin/qvtool\n")), {fixture.root()}));
  EXPECT_TRUE(tryExecFound(parsed(AppFixture::entryText("T")), {}));

  EXPECT_TRUE(isShownInMenus(parsed(AppFixture::entryText("Shown")), {}, {}));
  EXPECT_FALSE(isShownInMenus(parsed(AppFixture::entryText("N", "NoDisplay=true\n")), {}, {}));
  EXPECT_FALSE(isShownInMenus(parsed(AppFixture::entryText("H", "Hidden=true\n")), {}, {}));
  EXPECT_FALSE(isShownInMenus(parsed("[Desktop Entry]\nType=Link\nName=L\nURL=https://example.org\n"), {}, {}));
}

}  // namespace
}  // namespace quorvi

// The shared catalog: ids, precedence, Hidden entries, incremental refreshes.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <thread>

#include "app_fixture.h"
#include "apps/desktop_catalog.h"

namespace quorvi {
namespace {

using testing::AppFixture;
namespace fs = std::filesystem;

std::map<std::string, std::string> namesById(const DesktopCatalogSnapshot& snapshot) {
  std::map<std::string, std::string> names;
  for (const auto& entry : snapshot.entries()) names[entry.desktopId] = entry.name.in(SupportedLanguage::english);
  return names;
}

TEST(DesktopCatalog, IdsComeFromSubfoldersAndTheFirstFolderWins) {
  AppFixture fixture;
  fixture.writeUserEntry("mine.desktop", AppFixture::entryText("Mine"));
  fixture.writeUserEntry("shadowed.desktop", AppFixture::entryText("User copy"));
  fixture.writeSystemEntry("shadowed.desktop", AppFixture::entryText("System copy"));
  fixture.writeUserEntry("deleted.desktop", AppFixture::entryText("Deleted", "Hidden=true\n"));
  fixture.writeSystemEntry("deleted.desktop", AppFixture::entryText("Should not show"));
  fixture.writeUserEntry("broken.desktop", "this is no entry\n");  // claims nothing: the system one shows
  fixture.writeSystemEntry("broken.desktop", AppFixture::entryText("Unbroken"));
  fixture.writeSystemEntry("kde/okular.desktop", AppFixture::entryText("Okular"));
  fixture.writeSystemEntry("a/b/deep.desktop", AppFixture::entryText("Deep"));
  fixture.writeSystemEntry("kde-okular.desktop", AppFixture::entryText("Flat twin"));  // same id as kde/okular
  fixture.writeSystemEntry("readme.txt", "not an entry");
  fixture.writeSystemEntry(".desktop", AppFixture::entryText("Nameless file"));
  fs::create_symlink(fixture.systemApplications() + "/kde/okular.desktop", fixture.userApplications() + "/link.desktop");
  DesktopCatalog catalog({fixture.userApplications(), fixture.systemApplications(), fixture.root() + "/missing"});
  auto snapshot = catalog.snapshot();
  auto names = namesById(*snapshot);
  EXPECT_EQ(names, (std::map<std::string, std::string>{{"mine.desktop", "Mine"},
                                                       {"shadowed.desktop", "User copy"},
                                                       {"broken.desktop", "Unbroken"},
                                                       {"kde-okular.desktop", names["kde-okular.desktop"]},
                                                       {"a-b-deep.desktop", "Deep"},
                                                       {"link.desktop", "Okular"}}));
  // Both files claim kde-okular.desktop within one folder; either may win,
  // but the entry is listed once.
  EXPECT_TRUE(names["kde-okular.desktop"] == "Okular" || names["kde-okular.desktop"] == "Flat twin");
  ASSERT_TRUE(snapshot->entryWithId("a-b-deep.desktop"));
  EXPECT_EQ(snapshot->entryWithId("a-b-deep.desktop")->filePath, fixture.systemApplications() + "/a/b/deep.desktop");
  EXPECT_EQ(snapshot->entryAtPath(fixture.userApplications() + "/mine.desktop")->desktopId, "mine.desktop");
  EXPECT_FALSE(snapshot->entryWithId("deleted.desktop"));
  EXPECT_FALSE(snapshot->entryAtPath(fixture.systemApplications() + "/shadowed.desktop"));
}

TEST(DesktopCatalog, RefreshesParseOnlyWhatChangedAndKeepOldSnapshotsIntact) {
  AppFixture fixture;
  for (int i = 0; i < 20; ++i) fixture.writeSystemEntry("app" + std::to_string(i) + ".desktop", AppFixture::entryText("App " + std::to_string(i)));
  DesktopCatalog catalog({fixture.userApplications(), fixture.systemApplications()});
  auto first = catalog.snapshot();
  EXPECT_EQ(catalog.lastParsedCount(), 20u);
  EXPECT_EQ(catalog.refresh(), first);  // nothing changed: the same snapshot
  EXPECT_EQ(catalog.lastParsedCount(), 0u);

  fixture.writeSystemEntry("app3.desktop", AppFixture::entryText("Renamed three, longer"));
  auto second = catalog.refresh();
  EXPECT_EQ(catalog.lastParsedCount(), 1u);
  ASSERT_NE(second, first);
  EXPECT_GT(second->generation(), first->generation());
  EXPECT_EQ(second->entryWithId("app3.desktop")->name.in(SupportedLanguage::english), "Renamed three, longer");
  EXPECT_EQ(first->entryWithId("app3.desktop")->name.in(SupportedLanguage::english), "App 3");  // untouched

  // A user entry hiding a system one: only the new file is parsed.
  fixture.writeUserEntry("app4.desktop", AppFixture::entryText("Gone", "Hidden=true\n"));
  auto third = catalog.refresh();
  EXPECT_EQ(catalog.lastParsedCount(), 1u);
  EXPECT_FALSE(third->entryWithId("app4.desktop"));
  // Removing it brings the system entry back without parsing anything.
  fs::remove(fixture.userApplications() + "/app4.desktop");
  auto fourth = catalog.refresh();
  EXPECT_EQ(catalog.lastParsedCount(), 0u);
  EXPECT_TRUE(fourth->entryWithId("app4.desktop"));
  fs::remove(fixture.systemApplications() + "/app0.desktop");
  EXPECT_EQ(catalog.refresh()->entries().size(), 19u);
}

TEST(DesktopCatalog, CurrentSnapshotAnswersAtOnceAndRefreshesBehind) {
  AppFixture fixture;
  fixture.writeSystemEntry("one.desktop", AppFixture::entryText("One"));
  DesktopCatalog catalog({fixture.userApplications(), fixture.systemApplications()});
  auto first = catalog.currentSnapshot();
  EXPECT_EQ(first->entries().size(), 1u);
  // The user's folder appears later, with an entry in it.
  fs::remove_all(fixture.userApplications());
  EXPECT_EQ(catalog.refresh()->entries().size(), 1u);
  fixture.writeUserEntry("two.desktop", AppFixture::entryText("Two"));
  EXPECT_TRUE(testing::waitUntil([&] { return catalog.currentSnapshot()->entryWithId("two.desktop") != nullptr; },
                                 std::chrono::seconds(20)));
}

TEST(DesktopCatalog, FifosAndUnreadableThingsAreSkipped) {
  AppFixture fixture;
  ASSERT_EQ(::mkfifo((fixture.systemApplications() + "/fifo.desktop").c_str(), 0600), 0);
  fixture.writeSystemEntry("good.desktop", AppFixture::entryText("Good"));
  fs::create_symlink(fixture.systemApplications() + "/nowhere", fixture.systemApplications() + "/dangling.desktop");
  fs::create_symlink(fixture.systemApplications(), fixture.systemApplications() + "/loop");  // a folder cycle
  DesktopCatalog catalog({fixture.systemApplications()});
  auto names = namesById(*catalog.snapshot());
  EXPECT_EQ(names.count("good.desktop"), 1u);
  EXPECT_EQ(names.count("fifo.desktop"), 0u);
  EXPECT_EQ(names.count("dangling.desktop"), 0u);
  EXPECT_EQ(names.size(), 1u);  // the link back up adds no "loop-good.desktop"
}

TEST(AppEnvironment, SandboxExportsAreAddedWhenMissing) {
  auto dirs = AppEnvironment::withSandboxExports({"/usr/share/", "/var/lib/snapd/desktop"}, "/home/u/.local/share");
  EXPECT_EQ(dirs, (std::vector<std::string>{"/usr/share", "/var/lib/snapd/desktop",
                                            "/home/u/.local/share/flatpak/exports/share",
                                            "/var/lib/flatpak/exports/share"}));
  AppEnvironment environment = AppEnvironment::isolated("/r");
  EXPECT_EQ(environment.applicationDirectories(),
            (std::vector<std::string>{"/r/home/.local/share/applications", "/r/share/applications"}));
}

}  // namespace
}  // namespace quorvi

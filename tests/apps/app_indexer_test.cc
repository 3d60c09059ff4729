// AppIndexer: scans, notifications, and the list kept current from file
// events (injected, to check the handler's rules, and real ones).
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "app_fixture.h"
#include "apps/app_indexer.h"
#include "common/notification_center.h"

namespace quorvi {
namespace {

using testing::AppFixture;
using testing::waitUntil;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Counts the two notifications while it lives.
class NotificationCounter {
 public:
  NotificationCounter() {
    tokens_.push_back(NotificationCenter::shared().addObserver(kAppIndexDidUpdate, [this](const std::string&) {
      ++didUpdate;
    }));
    tokens_.push_back(NotificationCenter::shared().addObserver(kAppIndexerStateDidChange, [this](const std::string&) {
      // The in-process one comes first.
      stateDidChangeAfterUpdate = stateDidChangeAfterUpdate && didUpdate.load() == stateDidChange.load() + 1;
      ++stateDidChange;
    }));
  }
  ~NotificationCounter() {
    for (auto token : tokens_) NotificationCenter::shared().removeObserver(token);
  }
  std::atomic<int> didUpdate{0};
  std::atomic<int> stateDidChange{0};
  std::atomic<bool> stateDidChangeAfterUpdate{true};

 private:
  std::vector<uint64_t> tokens_;
};

FileEvents::Options fileEventOptions(const std::string& stateDirectory) {
  FileEvents::Options options;
  options.stateDirectory = stateDirectory;
  options.moveOutHold = 0.05;
  options.sweepInterval = 0.2;
  return options;
}

class AppIndexerTest : public ::testing::Test {
 protected:
  std::unique_ptr<AppIndexer> makeIndexer(bool watches) {
    events_ = std::make_unique<FileEvents>(fileEventOptions(fixture_.root() + "/state"));
    AppIndexer::Options options;
    options.environment = fixture_.environment();
    options.fileEvents = events_.get();
    options.watchesFileEvents = watches;
    return std::make_unique<AppIndexer>(std::move(options));
  }
  void scan(AppIndexer& indexer, std::vector<std::string> scopes) {
    std::atomic<bool> done{false};
    indexer.startIndexing(std::move(scopes), [&](const AppListRef&) { done = true; });
    ASSERT_TRUE(waitUntil([&] { return done.load(); }, 30s));
  }
  static const AppEntry* find(const AppIndexer& indexer, const std::string& path, AppListRef* keep) {
    *keep = indexer.appList();
    for (const auto& entry : (*keep)->entries) {
      if (entry.path == path) return &entry;
    }
    return nullptr;
  }
  static bool has(const AppIndexer& indexer, const std::string& path) {
    AppListRef keep;
    return find(indexer, path, &keep) != nullptr;
  }
  static std::string nameOf(const AppIndexer& indexer, const std::string& path) {
    AppListRef keep;
    const AppEntry* entry = find(indexer, path, &keep);
    return entry ? entry->nameOfDisplay : "";
  }
  static int logLinesStartingWith(const AppIndexer& indexer, const std::string& prefix) {
    int count = 0;
    for (const auto& line : indexer.logs()) count += line.starts_with(prefix);
    return count;
  }
  static FileEvent event(const std::string& path, uint32_t flags, const std::string& movedFrom = "") {
    static FileEventID next = 1;
    return FileEvent{next++, path, flags, movedFrom};
  }

  AppFixture fixture_;
  std::unique_ptr<FileEvents> events_;
};

TEST_F(AppIndexerTest, AScanPublishesTheListNotifiesOnceAndAnswersItsCallers) {
  std::string editor = fixture_.writeSystemEntry("editor.desktop", AppFixture::entryText("Editor"));
  fixture_.writeSystemEntry("viewer.desktop", AppFixture::entryText("Viewer", "MimeType=x-scheme-handler/view;\n"));
  std::string tool = fixture_.writeBundle(fixture_.root() + "/home/Applications/Tool.app", "");
  auto indexer = makeIndexer(false);
  NotificationCounter counter;
  EXPECT_FALSE(indexer->isReady());
  EXPECT_TRUE(indexer->appList()->entries.empty());
  std::atomic<int> answered{0};
  AppListRef answer;
  indexer->startIndexing({"~/Applications/"}, [&](const AppListRef& list) {
    answer = list;
    ++answered;
  });
  ASSERT_TRUE(waitUntil([&] { return answered.load() == 1; }, 30s));
  indexer->waitForPendingChanges();
  EXPECT_TRUE(indexer->isReady());
  EXPECT_FALSE(indexer->isIndexing());
  EXPECT_GT(indexer->finalUpdatedTimestamp(), 1.6e9);
  EXPECT_EQ(indexer->searchScopes(), (std::vector<std::string>{fixture_.root() + "/home/Applications"}));
  EXPECT_EQ(counter.didUpdate, 1);
  EXPECT_EQ(counter.stateDidChange, 1);
  EXPECT_TRUE(counter.stateDidChangeAfterUpdate);
  ASSERT_EQ(answer, indexer->appList());
  EXPECT_EQ(answer->entries.size(), 3u);
  EXPECT_TRUE(has(*indexer, editor) && has(*indexer, tool));
  ASSERT_TRUE(answer->json);
  Json json = Json::parse(*answer->json);
  ASSERT_EQ(json.size(), 3u);
  for (std::size_t i = 0; i < json.size(); ++i) EXPECT_EQ(AppEntry::fromJson(json[i]), answer->entries[i]);
  EXPECT_EQ(logLinesStartingWith(*indexer, "3 of app(s) founded"), 1);
  EXPECT_EQ(logLinesStartingWith(*indexer, "0 of sysexs founded"), 1);
  EXPECT_EQ(logLinesStartingWith(*indexer, "0 of xcodedves founded"), 1);
  EXPECT_EQ(logLinesStartingWith(*indexer, "Task finished, indexed 3 of app(s)"), 1);
  EXPECT_EQ(logLinesStartingWith(*indexer, "#aindex measure: "), 1);

  // Two calls at once: each caller is answered exactly once, by a scan that
  // started after its call; the notifications stay paired.
  std::atomic<int> first{0}, second{0};
  indexer->startIndexing({}, [&](const AppListRef&) { ++first; });
  indexer->startIndexing({}, [&](const AppListRef&) { ++second; });
  ASSERT_TRUE(waitUntil([&] { return first.load() == 1 && second.load() == 1; }, 30s));
  indexer->waitForPendingChanges();
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
  EXPECT_EQ(counter.didUpdate, counter.stateDidChange);
  EXPECT_GE(counter.didUpdate, 2);
  EXPECT_FALSE(has(*indexer, tool));  // the scope is gone with the new call
}

TEST_F(AppIndexerTest, EventsBeforeTheFirstScanOrOutsideTheWatchedFoldersChangeNothing) {
  auto indexer = makeIndexer(false);
  std::string early = fixture_.writeUserEntry("early.desktop", AppFixture::entryText("Early"));
  indexer->handleFileEvents({event(early, kFileEventCreated)});
  scan(*indexer, {});
  EXPECT_TRUE(has(*indexer, early));  // found by the scan itself
  std::string outside = fixture_.write("elsewhere/applications/x.desktop", AppFixture::entryText("X"));
  std::string bundle = fixture_.writeBundle(fixture_.root() + "/elsewhere/Y.app", "");
  indexer->handleFileEvents({event(outside, kFileEventCreated), event(bundle, kFileEventCreated | kFileEventIsDirectory),
                             event("", kFileEventRemoved), event("", kFileEventHistoryIncomplete)});
  std::this_thread::sleep_for(1600ms);  // past the throttlers' delay
  indexer->waitForPendingChanges();
  EXPECT_EQ(logLinesStartingWith(*indexer, "#aindex conflate resolved: "), 0);
  EXPECT_EQ(logLinesStartingWith(*indexer, "#aindex rm ***, "), 0);
  EXPECT_FALSE(has(*indexer, outside));
}

TEST_F(AppIndexerTest, DesktopEntriesInstalledEditedHiddenAndRemoved) {
  std::string system = fixture_.writeSystemEntry("org.example.Shared.desktop", AppFixture::entryText("Shared"));
  auto indexer = makeIndexer(false);
  scan(*indexer, {});
  NotificationCounter counter;

  std::string installed = fixture_.writeUserEntry("sub/new.desktop", AppFixture::entryText("Brand New"));
  auto started = std::chrono::steady_clock::now();
  indexer->handleFileEvents({event(installed, kFileEventCreated)});
  ASSERT_TRUE(waitUntil([&] { return has(*indexer, installed); }, 10s));
  EXPECT_GE(std::chrono::steady_clock::now() - started, 900ms);  // the throttler waits its whole delay
  AppListRef keep;
  EXPECT_EQ(find(*indexer, installed, &keep)->bundleIdentifier, "sub-new.desktop");
  indexer->waitForPendingChanges();
  EXPECT_EQ(counter.didUpdate, 1);
  EXPECT_EQ(counter.stateDidChange, 1);

  fixture_.writeUserEntry("sub/new.desktop", AppFixture::entryText("Renamed Entry"));
  indexer->handleFileEvents({event(installed, kFileEventModified)});
  ASSERT_TRUE(waitUntil([&] { return nameOf(*indexer, installed) == "Renamed Entry"; }, 10s));

  // A user entry that hides the system one of the same id.
  std::string hiding = fixture_.writeUserEntry("org.example.Shared.desktop", AppFixture::entryText("X", "Hidden=true\n"));
  indexer->handleFileEvents({event(hiding, kFileEventCreated)});
  ASSERT_TRUE(waitUntil([&] { return !has(*indexer, system); }, 10s));
  // Removing it brings the system entry back (through the remove batch).
  fs::remove(hiding);
  indexer->handleFileEvents({event(hiding, kFileEventRemoved)});
  ASSERT_TRUE(waitUntil([&] { return has(*indexer, system); }, 10s));

  fs::remove(installed);
  indexer->handleFileEvents({event(installed, kFileEventRemoved)});
  ASSERT_TRUE(waitUntil([&] { return !has(*indexer, installed); }, 10s));
  EXPECT_GE(logLinesStartingWith(*indexer, "#aindex rm ***, "), 2);
}

TEST_F(AppIndexerTest, BundlesRenamedMovedOutMovedInAndEdited) {
  std::string scope = fixture_.root() + "/Apps";
  std::string a = fixture_.writeBundle(scope + "/A.app", "<key>CFBundleDisplayName</key><string>Alpha</string>");
  auto indexer = makeIndexer(false);
  scan(*indexer, {scope});
  ASSERT_TRUE(has(*indexer, a));

  // A rename inside the scope arrives as one event with both paths.
  std::string b = scope + "/B.app";
  fs::rename(a, b);
  indexer->handleFileEvents({event(b, kFileEventRenamed | kFileEventIsDirectory, a)});
  ASSERT_TRUE(waitUntil([&] { return has(*indexer, b) && !has(*indexer, a); }, 10s));
  EXPECT_EQ(nameOf(*indexer, b), "Alpha");

  // Moved out of the scope: reported as removed.
  fs::create_directories(fixture_.root() + "/Outside");
  fs::rename(b, fixture_.root() + "/Outside/B.app");
  indexer->handleFileEvents({event(b, kFileEventRemoved | kFileEventIsDirectory)});
  ASSERT_TRUE(waitUntil([&] { return !has(*indexer, b); }, 10s));

  // Moved in: reported as created, with its subtree to be walked.
  std::string c = scope + "/C.app";
  fs::rename(fixture_.root() + "/Outside/B.app", c);
  indexer->handleFileEvents({event(c, kFileEventCreated | kFileEventIsDirectory | kFileEventMustScanSubDirs)});
  ASSERT_TRUE(waitUntil([&] { return has(*indexer, c); }, 10s));

  // Its Info.plist rewritten.
  fixture_.writeBundle(c, "<key>CFBundleDisplayName</key><string>Gamma</string>");
  indexer->handleFileEvents({event(c + "/Contents/Info.plist", kFileEventModified)});
  ASSERT_TRUE(waitUntil([&] { return nameOf(*indexer, c) == "Gamma"; }, 10s));

  // A new folder holding bundles.
  std::string d = fixture_.writeBundle(scope + "/Games/D.app", "");
  indexer->handleFileEvents({event(scope + "/Games", kFileEventCreated | kFileEventIsDirectory | kFileEventMustScanSubDirs)});
  ASSERT_TRUE(waitUntil([&] { return has(*indexer, d); }, 10s));
}

TEST_F(AppIndexerTest, ABurstOfEventsIsOneBatch) {
  auto indexer = makeIndexer(false);
  scan(*indexer, {});
  std::vector<FileEvent> burst;
  for (int i = 0; i < 50; ++i) {
    std::string path = fixture_.writeUserEntry("burst" + std::to_string(i) + ".desktop", AppFixture::entryText("B"));
    indexer->handleFileEvents({event(path, kFileEventCreated)});
    indexer->handleFileEvents({event(path, kFileEventModified)});
  }
  ASSERT_TRUE(waitUntil([&] { return indexer->appList()->entries.size() == 50; }, 10s));
  indexer->waitForPendingChanges();
  EXPECT_EQ(logLinesStartingWith(*indexer, "#aindex conflate resolved: 50 path(s)"), 1);
  EXPECT_EQ(logLinesStartingWith(*indexer, "#aindex conflate resolved: "), 1);
}

// The real file-events service: an app installed, edited and removed while
// the index runs shows in the list without any help.
TEST_F(AppIndexerTest, RealFileEventsKeepTheListCurrent) {
  fixture_.writeSystemEntry("base.desktop", AppFixture::entryText("Base"));
  std::string scope = fixture_.root() + "/Apps";
  fs::create_directories(scope);
  auto indexer = makeIndexer(true);
  scan(*indexer, {scope});
  events_->waitUntilIdle();
  std::string installed = fixture_.userApplications() + "/installed.desktop";
  std::string temporary = fixture_.userApplications() + "/.installed.tmp";
  {
    std::ofstream(temporary) << AppFixture::entryText("Installed");
  }
  fs::rename(temporary, installed);  // as package managers and editors write
  ASSERT_TRUE(waitUntil([&] { return has(*indexer, installed); }, 15s));
  std::ofstream(installed, std::ios::trunc) << AppFixture::entryText("Edited in place");
  ASSERT_TRUE(waitUntil([&] { return nameOf(*indexer, installed) == "Edited in place"; }, 15s));
  std::string bundle = fixture_.writeBundle(scope + "/Fresh.app", "");
  ASSERT_TRUE(waitUntil([&] { return has(*indexer, bundle); }, 15s));
  fs::remove(installed);
  fs::remove_all(bundle);
  ASSERT_TRUE(waitUntil([&] { return !has(*indexer, installed) && !has(*indexer, bundle); }, 15s));
  // Installs and removals in turn, each under a new name, keep being seen.
  for (int round = 0; round < 2; ++round) {
    std::string next = fixture_.userApplications() + "/again" + std::to_string(round) + ".desktop";
    std::ofstream(temporary) << AppFixture::entryText("Again " + std::to_string(round));
    fs::rename(temporary, next);
    ASSERT_TRUE(waitUntil([&] { return has(*indexer, next); }, 15s)) << "round " << round;
    fs::remove(next);
    ASSERT_TRUE(waitUntil([&] { return !has(*indexer, next); }, 15s)) << "round " << round;
  }
}

}  // namespace
}  // namespace quorvi

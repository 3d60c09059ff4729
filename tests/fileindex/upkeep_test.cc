// The index kept true to the disk by file events: after each kind of change
// (and after bursts, overflows, sleeps) the index equals what a fresh walk of
// the same scopes records, record for record.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <tuple>

#include "common/event_log.h"
#include "index_fixture.h"

namespace quorvi::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// path, folder flag, inode, whole seconds of the time.
using Record = std::tuple<std::string, bool, uint64_t, uint32_t>;

std::set<Record> recordsOf(FileIndexer& indexer) {
  std::set<Record> records;
  for (const auto& file : allRecords(indexer)) {
    records.emplace(file.fileRefURL.path, file.isDirectory, file.fileRefURL.inode,
                    static_cast<uint32_t>(file.lastUsedTimestamp));
  }
  return records;
}

class UpkeepTest : public ::testing::Test {
 protected:
  void SetUp() override { tree.settings().set(Filter::kDidInitNodeModulesKey, true); }

  std::string at(const std::string& relative) const { return tree.home() + "/" + relative; }
  void write(const std::string& relative, const std::string& contents = "x") {
    fs::create_directories(fs::path(at(relative)).parent_path());
    std::ofstream(at(relative)) << contents;
  }
  void start(std::vector<std::string> scopeList, FileEvents* events = nullptr) {
    scopes = std::move(scopeList);
    indexer = std::make_unique<FileIndexer>(tree.environment(), false, events ? events : &testFileEvents());
    indexScopes(*indexer, scopes);
    indexer->waitForUpkeep();  // the watches are set
  }
  // Waits until the index equals a fresh walk of the same scopes.
  ::testing::AssertionResult settlesToAFreshWalk() {
    std::set<Record> kept, fresh;
    for (int attempt = 0; attempt < 100; ++attempt) {
      indexer->waitForUpkeep();
      kept = recordsOf(*indexer);
      FileIndexer walker(tree.environment(), false, &testFileEvents());
      indexScopes(walker, scopes);
      fresh = recordsOf(walker);
      if (kept == fresh) return ::testing::AssertionSuccess();
      std::this_thread::sleep_for(50ms);
    }
    auto result = ::testing::AssertionFailure();
    if (std::getenv("QUORVI_SHOW_LOG")) result << EventLog::shared().joined() << "\n";
    int shown = 0;
    for (const auto& r : fresh) {
      if (!kept.count(r) && shown++ < 10) result << "missing: " << std::get<0>(r) << "\n";
    }
    for (const auto& r : kept) {
      if (!fresh.count(r) && shown++ < 20) result << "stale: " << std::get<0>(r) << "\n";
    }
    return result;
  }
  std::vector<std::string> found(const std::string& query) { return sorted(namesOf(indexer->searchFiles(query, 1000))); }

  // A file-events service of the test's own (the index goes before it).
  FileEvents* ownEvents(FileEvents::Options options) {
    options.stateDirectory = ownState.path();
    events = std::make_unique<FileEvents>(options);
    return events.get();
  }

  IndexTree tree;
  std::vector<std::string> scopes;
  TemporaryDirectory ownState;
  std::unique_ptr<FileEvents> events;
  std::unique_ptr<FileIndexer> indexer;
};

TEST_F(UpkeepTest, FilesCreatedModifiedRenamedAndDeletedInPlace) {
  write("docs/keep.txt");
  start({"~/docs"});
  write("docs/fresh-plan.txt");
  indexer->waitForUpkeep();
  EXPECT_EQ(found("fresh"), std::vector<std::string>{"fresh-plan.txt"});
  // A modification moves the record to the front (newest first).
  IndexTree::setTime(at("docs/keep.txt"), 1.2e9);
  write("docs/keep.txt", "changed");
  indexer->waitForUpkeep();
  EXPECT_EQ(namesOf(indexer->searchFiles("", 1)), std::vector<std::string>{"keep.txt"});
  fs::rename(at("docs/fresh-plan.txt"), at("docs/final-plan.txt"));
  indexer->waitForUpkeep();
  EXPECT_EQ(found("plan"), std::vector<std::string>{"final-plan.txt"});
  fs::remove(at("docs/final-plan.txt"));
  indexer->waitForUpkeep();
  EXPECT_EQ(found("plan"), std::vector<std::string>{});
  EXPECT_FALSE(indexer->containsFile(at("docs/final-plan.txt")));
  EXPECT_TRUE(settlesToAFreshWalk());
  // Every handled change is a line of the event log.
  std::string log = EventLog::shared().joined();
  EXPECT_NE(log.find("#fs rm " + at("docs/final-plan.txt")), std::string::npos);
  EXPECT_NE(log.find("#fs put " + at("docs/fresh-plan.txt")), std::string::npos);
  auto snapshot = indexer->performanceSnapshot();
  EXPECT_GT(snapshot.fileEventsHandled, 0);
  EXPECT_GT(snapshot.watchedFolders, 0);
}

TEST_F(UpkeepTest, FoldersMovedWithinOutOfAndIntoTheScopes) {
  for (int f = 0; f < 30; ++f) write("docs/project/src/file" + std::to_string(f) + ".cc");
  write("docs/project/deeper/notes.md");
  write("outside/brought/inner/thing.txt");
  start({"~/docs"});
  // Within: the records follow the folder.
  fs::rename(at("docs/project"), at("docs/renamed"));
  indexer->waitForUpkeep();
  auto hits = indexer->searchFiles("notes", 10);
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].fileRefURL.path, at("docs/renamed/deeper/notes.md"));
  EXPECT_TRUE(settlesToAFreshWalk());
  // Out: gone from the index.
  fs::rename(at("docs/renamed"), at("outside/renamed"));
  indexer->waitForUpkeep();
  EXPECT_EQ(found("file1"), std::vector<std::string>{});
  // In: walked, with everything inside.
  fs::rename(at("outside/brought"), at("docs/brought"));
  indexer->waitForUpkeep();
  EXPECT_EQ(found("thing"), std::vector<std::string>{"thing.txt"});
  // Into an ignored name and back: the records go, then return.
  fs::create_directories(at("docs/app/src"));
  write("docs/app/src/index.js");
  indexer->waitForUpkeep();
  fs::rename(at("docs/app"), at("docs/node_modules"));
  indexer->waitForUpkeep();
  EXPECT_EQ(found("index"), std::vector<std::string>{});
  fs::rename(at("docs/node_modules"), at("docs/app2"));
  indexer->waitForUpkeep();
  EXPECT_EQ(found("index"), std::vector<std::string>{"index.js"});
  EXPECT_TRUE(settlesToAFreshWalk());
}

TEST_F(UpkeepTest, BurstsRemovalsAndRewritesLeaveTheIndexEqualToAWalk) {
  for (int d = 0; d < 20; ++d) {
    for (int f = 0; f < 100; ++f) write("repo/pkg" + std::to_string(d) + "/f" + std::to_string(f) + ".txt");
  }
  start({"~/repo", "~/burst"});
  // A burst of 10k creations, in folders made as it goes.
  for (int d = 0; d < 100; ++d) {
    for (int f = 0; f < 100; ++f) write("burst/d" + std::to_string(d) + "/n" + std::to_string(f));
  }
  EXPECT_TRUE(settlesToAFreshWalk());
  EXPECT_EQ(indexer->searchFiles("n99", 1000).size(), 100u);
  // rm -rf of a large folder.
  fs::remove_all(at("burst"));
  EXPECT_TRUE(settlesToAFreshWalk());
  // A checkout: thousands of files rewritten through a temporary file and a
  // rename, some deleted, some new, a folder replaced by a file.
  for (int d = 0; d < 20; ++d) {
    for (int f = 0; f < 100; ++f) {
      std::string target = "repo/pkg" + std::to_string(d) + "/f" + std::to_string(f) + ".txt";
      write(target + ".lock", "new contents");
      fs::rename(at(target + ".lock"), at(target));
    }
    fs::remove(at("repo/pkg" + std::to_string(d) + "/f0.txt"));
    write("repo/pkg" + std::to_string(d) + "/added.txt");
  }
  fs::remove_all(at("repo/pkg19"));
  write("repo/pkg19", "now a file");
  EXPECT_TRUE(settlesToAFreshWalk());
  // Compaction may have rebuilt the index on the way; searches still agree.
  EXPECT_EQ(indexer->searchFiles("added", 100).size(), 19u);
}

TEST_F(UpkeepTest, WhatTheScopesLeaveOutStaysOut) {
  write("docs/a.txt");
  write("Nextcloud/shared.txt");
  start({"~/docs", "~/Nextcloud"});
  write("docs/.hidden-note.txt");              // hidden outside a cloud-drive folder
  write("Nextcloud/.sync-journal");            // hidden inside one: indexed
  write("docs/Tool.app/Contents/Info.plist");  // inside a package: only the package
  write("docs/node_modules/lib/index.js");     // the ignore filter
  write("docs/.TheUnarchiverTemp/half.zip");   // an archive tool's temporary folder
  write("docs/~$lock.docx");                   // an office lock file
  write("Nextcloud/.big.pdf.icloud");          // a placeholder of a file not downloaded
  indexer->waitForUpkeep();
  EXPECT_EQ(found("hidden"), std::vector<std::string>{});
  EXPECT_EQ(found("sync"), std::vector<std::string>{".sync-journal"});
  EXPECT_EQ(found("tool"), std::vector<std::string>{"Tool.app"});
  EXPECT_EQ(found("info"), std::vector<std::string>{});
  EXPECT_EQ(found("index"), std::vector<std::string>{});
  EXPECT_EQ(found("half"), std::vector<std::string>{});
  EXPECT_EQ(found("lock"), std::vector<std::string>{});
  EXPECT_EQ(found("big"), std::vector<std::string>{});
  // The archive done, its result moved into place is found.
  fs::rename(at("docs/.TheUnarchiverTemp/half.zip"), at("docs/whole.zip"));
  indexer->waitForUpkeep();
  EXPECT_EQ(found("whole"), std::vector<std::string>{"whole.zip"});
  EXPECT_TRUE(settlesToAFreshWalk());
}

TEST_F(UpkeepTest, SleepAndWakeReplayWhatHappenedMeanwhile) {
  write("docs/before.txt");
  write("docs/sub/old.txt");
  start({"~/docs"});
  onMain([&] { indexer->workspaceWillSleep(); });
  testFileEvents().waitUntilIdle();
  write("docs/while-asleep.txt");
  fs::remove(at("docs/before.txt"));
  fs::rename(at("docs/sub"), at("docs/moved"));
  testFileEvents().waitUntilIdle();
  indexer->waitForUpkeep();
  EXPECT_EQ(found("asleep"), std::vector<std::string>{});  // not while asleep
  onMain([&] { indexer->workspaceDidAwake(); });
  indexer->waitForUpkeep();
  EXPECT_EQ(found("asleep"), std::vector<std::string>{"while-asleep.txt"});
  EXPECT_EQ(found("before"), std::vector<std::string>{});
  EXPECT_TRUE(settlesToAFreshWalk());
  // Awake again: live events as before.
  write("docs/after.txt");
  indexer->waitForUpkeep();
  EXPECT_EQ(found("after"), std::vector<std::string>{"after.txt"});
}

TEST_F(UpkeepTest, AWakeWhoseHistoryIsLostWalksTheScopesAgain) {
  write("docs/a.txt");
  FileEvents::Options options;
  options.journalBytes = 1500;  // a handful of events
  start({"~/docs"}, ownEvents(options));
  onMain([&] { indexer->workspaceWillSleep(); });
  events->waitUntilIdle();
  for (int f = 0; f < 40; ++f) write("docs/while-" + std::to_string(f) + ".txt");
  fs::remove(at("docs/a.txt"));
  events->waitUntilIdle();
  onMain([&] { indexer->workspaceDidAwake(); });
  EXPECT_TRUE(settlesToAFreshWalk());
}

TEST_F(UpkeepTest, AQueueOverflowIsRepaired) {
  for (int d = 0; d < 10; ++d) write("docs/d" + std::to_string(d) + "/seed");
  const char* limitFile = "/proc/sys/fs/inotify/max_queued_events";
  std::string saved;
  std::getline(std::ifstream(limitFile), saved);
  const bool lowered = !saved.empty() && static_cast<bool>(std::ofstream(limitFile) << "16");
  FileEvents* watched = ownEvents({});
  if (lowered) std::ofstream(limitFile) << saved;
  start({"~/docs"}, watched);
  for (int d = 0; d < 10; ++d) {
    for (int f = 0; f < 200; ++f) write("docs/d" + std::to_string(d) + "/burst" + std::to_string(f));
  }
  if (!lowered) events->injectOverflow();  // where the queue cannot be made small
  EXPECT_TRUE(settlesToAFreshWalk());
  EXPECT_GE(events->statistics().overflows, 1);
}

TEST_F(UpkeepTest, FoldersBeyondTheWatchBudgetAreKeptBySweeps) {
  for (int d = 0; d < 20; ++d) write("docs/a/b" + std::to_string(d) + "/c/seed.txt");
  FileEvents::Options options;
  options.watchBudget = 4;
  options.sweepInterval = 0.1;
  start({"~/docs"}, ownEvents(options));
  auto snapshot = indexer->performanceSnapshot();
  EXPECT_EQ(snapshot.watchedFolders, 4);
  EXPECT_EQ(snapshot.sweptFolders, 1 + 1 + 20 + 20 - 4);
  write("docs/a/b17/c/deep-change.txt");
  fs::remove(at("docs/a/b3/c/seed.txt"));
  fs::create_directories(at("docs/a/b9/c/new-folder/inner"));
  write("docs/a/b9/c/new-folder/inner/x.txt");
  EXPECT_TRUE(settlesToAFreshWalk());
  EXPECT_EQ(found("deep-change"), std::vector<std::string>{"deep-change.txt"});
}

// Paths deeper than any fixed buffer: found, and returned whole.
TEST_F(UpkeepTest, VeryDeepPathsAreReturnedWhole) {
  std::string relative = "deep";
  for (int level = 0; level < 600; ++level) relative += "/d";
  fs::create_directories(at(relative));
  write(relative + "/bottom-file.txt");
  start({"~/deep"});
  auto hits = indexer->searchFiles("bottom", 10);
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].fileRefURL.path, at(relative + "/bottom-file.txt"));
  EXPECT_TRUE(indexer->containsFile(at(relative + "/bottom-file.txt")));
}

}  // namespace
}  // namespace quorvi::testing

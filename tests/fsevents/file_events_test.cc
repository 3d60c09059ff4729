// The file-events service on real folders. Most groups check the strongest
// property a receiver needs: a mirror of the disk kept from events alone
// (plus the walks and listings the events ask for) equals a fresh walk once
// things settle, whatever was done to the folders.
#include "fsevents/file_events.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "support/test_bus.h"

namespace quorvi {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::TemporaryDirectory;

void touch(const std::string& path, const std::string& contents = "x") {
  std::ofstream(path) << contents;
}

// The events one watcher received, and waits on them.
// Declare it before the service it listens to: the service goes first, and
// what it handed on is drained before the recorder goes.
class Recorder {
 public:
  Recorder() : queue_(DispatchQueue::makeSerial("test.fileevents")) {}
  ~Recorder() { queue_->sync([] {}); }

  std::shared_ptr<DispatchQueue> queue() const { return queue_; }
  FileEventHandler handler() {
    return [this](std::vector<FileEvent> batch) {
      std::lock_guard lock(mutex_);
      for (auto& event : batch) events_.push_back(std::move(event));
      changed_.notify_all();
    };
  }
  std::vector<FileEvent> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  void clear() {
    queue_->sync([] {});
    std::lock_guard lock(mutex_);
    events_.clear();
  }
  // The first event (from the start) that satisfies the predicate.
  std::optional<FileEvent> waitFor(const std::function<bool(const FileEvent&)>& predicate,
                                   std::chrono::milliseconds timeout = 10s) {
    std::unique_lock lock(mutex_);
    std::optional<FileEvent> found;
    changed_.wait_for(lock, timeout, [&] {
      for (const auto& event : events_) {
        if (predicate(event)) {
          found = event;
          return true;
        }
      }
      return false;
    });
    return found;
  }

 private:
  std::shared_ptr<DispatchQueue> queue_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<FileEvent> events_;
};

std::function<bool(const FileEvent&)> eventAt(const std::string& path, uint32_t flags) {
  return [path, flags](const FileEvent& event) { return event.path == path && (event.flags & flags) == flags; };
}

bool anyEventAt(const std::vector<FileEvent>& events, const std::string& path) {
  return std::any_of(events.begin(), events.end(), [&](const FileEvent& e) { return e.path == path; });
}

FileEvents::Options testOptions(const std::string& stateDirectory) {
  FileEvents::Options options;
  options.stateDirectory = stateDirectory;
  options.moveOutHold = 0.05;
  options.sweepInterval = 0.2;
  return options;
}

// Every path below root (root excluded), as a walk finds it now.
std::set<std::string> walk(const std::string& root) {
  std::set<std::string> paths;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(root, error); !error && it != fs::recursive_directory_iterator();
       it.increment(error)) {
    paths.insert(it->path().string());
  }
  return paths;
}

// What a receiver believes is below `root`, kept from events alone.
// Declare it before the service, like a Recorder.
class Mirror {
 public:
  explicit Mirror(std::string root) : root_(std::move(root)), paths_(walk(root_)) {}
  ~Mirror() { queue_->sync([] {}); }
  std::shared_ptr<DispatchQueue> queue() const { return queue_; }

  FileEventHandler handler() {
    return [this](std::vector<FileEvent> batch) {
      std::lock_guard lock(mutex_);
      for (const auto& event : batch) apply(event);
    };
  }
  std::set<std::string> paths() {
    std::lock_guard lock(mutex_);
    return paths_;
  }

 private:
  void eraseBelow(const std::string& path, bool andItself) {
    if (andItself) paths_.erase(path);
    const std::string prefix = path + "/";
    paths_.erase(paths_.lower_bound(prefix), paths_.lower_bound(path + "0"));  // '0' follows '/'
  }
  void addWalk(const std::string& folder) {
    for (const auto& path : walk(folder)) paths_.insert(path);
  }
  void apply(const FileEvent& event) {
    if (event.has(kFileEventHistoryIncomplete)) {
      paths_ = walk(root_);
      return;
    }
    if (event.path.empty()) return;
    if (event.path == root_ && (event.has(kFileEventRemoved) || event.has(kFileEventMustScanSubDirs))) {
      paths_ = walk(root_);
      return;
    }
    if (event.has(kFileEventRenamed)) {
      std::set<std::string> moved;
      const std::string prefix = event.movedFrom + "/";
      for (const auto& path : paths_) {
        if (path.starts_with(prefix)) moved.insert(event.path + path.substr(event.movedFrom.size()));
      }
      eraseBelow(event.movedFrom, true);
      eraseBelow(event.path, true);  // a rename onto an item replaces it
      paths_.insert(event.path);
      paths_.insert(moved.begin(), moved.end());
    }
    if (event.has(kFileEventRemoved)) eraseBelow(event.path, true);
    if (event.has(kFileEventCreated) || event.has(kFileEventModified)) paths_.insert(event.path);
    if (event.has(kFileEventMustScanSubDirs)) {
      eraseBelow(event.path, false);
      addWalk(event.path);
    }
    if (event.has(kFileEventFolderChanged)) {
      // Compare the folder's entries; walk new subfolders whole.
      std::set<std::string> now;
      std::error_code error;
      for (const auto& entry : fs::directory_iterator(event.path, error)) now.insert(entry.path().string());
      std::vector<std::string> gone;
      const std::string prefix = event.path + "/";
      for (auto it = paths_.lower_bound(prefix); it != paths_.end() && it->starts_with(prefix); ++it) {
        if (it->find('/', prefix.size()) == std::string::npos && !now.count(*it)) gone.push_back(*it);
      }
      for (const auto& path : gone) eraseBelow(path, true);
      for (const auto& path : now) {
        if (!paths_.count(path)) {
          paths_.insert(path);
          if (fs::is_directory(fs::symlink_status(path))) addWalk(path);
        }
      }
    }
  }

  std::string root_;
  std::mutex mutex_;
  std::set<std::string> paths_;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::makeSerial("test.mirror");
};

// Waits until the mirror equals the disk (events may still be on their way
// for a moment after the last change).
::testing::AssertionResult settlesToDisk(FileEvents& events, Mirror& mirror, const std::string& root,
                                        std::shared_ptr<DispatchQueue> queue) {
  std::set<std::string> believed, actual;
  for (int attempt = 0; attempt < 200; ++attempt) {
    events.waitUntilIdle();
    queue->sync([] {});
    believed = mirror.paths();
    actual = walk(root);
    if (believed == actual) return ::testing::AssertionSuccess();
    std::this_thread::sleep_for(50ms);
  }
  auto result = ::testing::AssertionFailure();
  int shown = 0;
  for (const auto& path : actual) {
    if (!believed.count(path) && shown++ < 10) result << "missed: " << path << "\n";
  }
  for (const auto& path : believed) {
    if (!actual.count(path) && shown++ < 20) result << "stale: " << path << "\n";
  }
  return result;
}

class FileEventsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = dir.path() + "/w";
    fs::create_directories(root);
  }
  FileEvents::Options options() const { return testOptions(dir.path() + "/state"); }

  TemporaryDirectory dir;
  std::string root;
};

TEST_F(FileEventsTest, ReportsWhatHappensToFilesAndFolders) {
  Recorder recorder;
  FileEvents events(options());
  ASSERT_TRUE(events.startWatching({root}, "w", recorder.queue(), std::nullopt, recorder.handler()));
  events.waitUntilIdle();

  touch(root + "/a.txt");
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/a.txt", kFileEventCreated)));
  touch(root + "/a.txt", "again");
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/a.txt", kFileEventModified)));
  ASSERT_EQ(::rename((root + "/a.txt").c_str(), (root + "/b.txt").c_str()), 0);
  auto renamed = recorder.waitFor(eventAt(root + "/b.txt", kFileEventRenamed));
  ASSERT_TRUE(renamed);
  EXPECT_EQ(renamed->movedFrom, root + "/a.txt");
  ::unlink((root + "/b.txt").c_str());
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/b.txt", kFileEventRemoved)));

  // A new folder is watched before it is reported, so what is created in it
  // afterwards is reported too.
  fs::create_directories(root + "/new/deeper");
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/new", kFileEventCreated | kFileEventIsDirectory | kFileEventMustScanSubDirs)));
  events.waitUntilIdle();
  touch(root + "/new/deeper/f");
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/new/deeper/f", kFileEventCreated)));

  // Ids increase.
  auto all = recorder.events();
  for (std::size_t k = 1; k < all.size(); ++k) EXPECT_LT(all[k - 1].id, all[k].id);
  EXPECT_GE(events.currentEventID(), all.back().id);
}

TEST_F(FileEventsTest, FoldersMovedWithinOutAndIn) {
  const std::string outside = dir.path() + "/outside";
  fs::create_directories(root + "/a/sub");
  fs::create_directories(outside + "/in/deep");
  touch(outside + "/in/deep/f");
  Recorder recorder;
  FileEvents events(options());
  events.startWatching({root}, "w", recorder.queue(), std::nullopt, recorder.handler());
  events.waitUntilIdle();

  fs::rename(root + "/a", root + "/b");
  auto renamed = recorder.waitFor(eventAt(root + "/b", kFileEventRenamed | kFileEventIsDirectory));
  ASSERT_TRUE(renamed);
  EXPECT_EQ(renamed->movedFrom, root + "/a");
  // The moved folder's watches follow it: later events carry the new path.
  touch(root + "/b/sub/later");
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/b/sub/later", kFileEventCreated)));

  fs::rename(root + "/b", outside + "/b");
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/b", kFileEventRemoved | kFileEventIsDirectory)));
  events.waitUntilIdle();
  touch(outside + "/b/sub/unseen");  // no longer watched

  fs::rename(outside + "/in", root + "/in");
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/in", kFileEventCreated | kFileEventMustScanSubDirs)));
  events.waitUntilIdle();
  touch(root + "/in/deep/g");
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/in/deep/g", kFileEventCreated)));

  std::this_thread::sleep_for(200ms);
  events.waitUntilIdle();
  recorder.queue()->sync([] {});
  for (const auto& event : recorder.events()) {
    EXPECT_FALSE(event.path.starts_with(outside)) << event.path;
  }
}

TEST_F(FileEventsTest, MirrorFollowsBurstsRemovalsRewritesAndMoves) {
  for (int d = 0; d < 20; ++d) {
    fs::create_directories(root + "/old" + std::to_string(d) + "/x");
    for (int f = 0; f < 50; ++f) touch(root + "/old" + std::to_string(d) + "/x/f" + std::to_string(f));
  }
  Mirror mirror(root);
  FileEvents events(options());
  events.startWatching({root}, "w", mirror.queue(), std::nullopt, mirror.handler());
  events.waitUntilIdle();

  // A burst of 10k creations in new folders, written while the folders are
  // being made and watched.
  std::thread writer([&] {
    for (int d = 0; d < 100; ++d) {
      std::string folder = root + "/burst/d" + std::to_string(d);
      fs::create_directories(folder);
      for (int f = 0; f < 100; ++f) touch(folder + "/file" + std::to_string(f));
    }
  });
  writer.join();
  ASSERT_TRUE(settlesToDisk(events, mirror, root, mirror.queue()));

  // rm -rf of a large folder, and a checkout that rewrites thousands of
  // files the way editors and version control do (new file, rename over).
  fs::remove_all(root + "/burst");
  for (int d = 0; d < 20; ++d) {
    std::string folder = root + "/old" + std::to_string(d) + "/x";
    for (int f = 0; f < 50; ++f) {
      std::string target = folder + "/f" + std::to_string(f);
      touch(target + ".tmp", "new");
      ::rename((target + ".tmp").c_str(), target.c_str());
    }
    touch(folder + "/added");
    ::unlink((folder + "/f0").c_str());
  }
  ASSERT_TRUE(settlesToDisk(events, mirror, root, mirror.queue()));

  // Folders moved within, out, and in from outside, and swapped.
  const std::string outside = dir.path() + "/outside";
  fs::create_directories(outside + "/brought/inner");
  touch(outside + "/brought/inner/z");
  fs::rename(root + "/old1", root + "/old0/old1");
  fs::rename(root + "/old2", outside + "/old2");
  fs::rename(outside + "/brought", root + "/brought");
  fs::rename(root + "/old3", root + "/swap");
  fs::rename(root + "/old4", root + "/old3");
  fs::rename(root + "/swap", root + "/old4");
  ASSERT_TRUE(settlesToDisk(events, mirror, root, mirror.queue()));
}

TEST_F(FileEventsTest, FoldersBeyondTheBudgetAreSweptAndChangedOnesPromoted) {
  for (int d = 0; d < 10; ++d) fs::create_directories(root + "/a/b/c" + std::to_string(d) + "/deep");
  // Unchanged for two years, as most folders of a home are.
  struct timespec twoYearsAgo[2] = {{::time(nullptr) - 2 * 365 * 86400, 0}, {::time(nullptr) - 2 * 365 * 86400, 0}};
  for (const auto& path : walk(root)) ::utimensat(AT_FDCWD, path.c_str(), twoYearsAgo, 0);
  auto opts = options();
  opts.watchBudget = 5;
  Mirror mirror(root);
  Recorder recorder;  // listens later
  FileEvents events(opts);
  events.startWatching({root}, "w", mirror.queue(), std::nullopt, mirror.handler());
  events.waitUntilIdle();
  FileEventsStatistics stats = events.statistics();
  EXPECT_EQ(stats.watchedFolders, 5);
  EXPECT_EQ(stats.sweptFolders, 1 + 1 + 10 + 10 + 1 - 5);  // root, a, b, the c's and deep's
  EXPECT_EQ(stats.watchBudget, 5);

  // A change in a swept folder is seen by the sweep; the mirror stays true.
  touch(root + "/a/b/c7/deep/new");
  ASSERT_TRUE(settlesToDisk(events, mirror, root, mirror.queue()));
  // The changed folder took the watch of a worse-ranked one (deep and
  // stale), so its next change arrives as an event of its own.
  events.startWatching({root}, "r", recorder.queue(), std::nullopt, recorder.handler());
  events.waitUntilIdle();
  std::this_thread::sleep_for(500ms);  // a sweep or two
  events.waitUntilIdle();
  touch(root + "/a/b/c7/deep/second");
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/a/b/c7/deep/second", kFileEventCreated)));
  EXPECT_EQ(events.statistics().watchedFolders, 5);
}

// A database's write-ahead log stays open while it grows: only a watcher
// that asks hears of those writes, gathered into few events.
TEST_F(FileEventsTest, WritesToOpenFilesReachOnlyTheWatchersThatAskAndAreGathered) {
  fs::create_directories(root + "/db");
  Recorder plain, writes;
  FileEvents events(options());
  // The plain watcher arms the folder first, so the other one must have
  // writes added to a watch that exists.
  events.startWatching({root}, "plain", plain.queue(), std::nullopt, plain.handler());
  events.waitUntilIdle();
  FileWatchOptions wantsWrites;
  wantsWrites.reportsWritesToOpenFiles = true;
  events.startWatching({root + "/db"}, "writes", writes.queue(), std::nullopt, writes.handler(), wantsWrites);
  events.waitUntilIdle();

  const std::string log = root + "/db/library.sqlite-wal";
  int fd = ::open(log.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(writes.waitFor(eventAt(log, kFileEventCreated)));
  writes.clear();
  plain.clear();
  for (int i = 0; i < 200; ++i) ASSERT_EQ(::write(fd, "page", 4), 4);
  ASSERT_TRUE(writes.waitFor(eventAt(log, kFileEventModified)));
  events.waitUntilIdle();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  events.waitUntilIdle();
  writes.queue()->sync([] {});
  int modified = 0;
  for (const auto& event : writes.events()) modified += event.path == log && event.has(kFileEventModified);
  EXPECT_LE(modified, 3);  // 200 writes within a few holds
  plain.queue()->sync([] {});
  EXPECT_FALSE(anyEventAt(plain.events(), log));  // still open: nothing for the plain watcher
  ::close(fd);
  ASSERT_TRUE(plain.waitFor(eventAt(log, kFileEventModified)));
}

TEST_F(FileEventsTest, OverflowIsRepairedBySweepingTheKnownFolders) {
  // Folders changed within the last few clock ticks are always looked at
  // again, so these are made a minute old.
  const struct timespec aMinuteAgo[2] = {{time(nullptr) - 60, 0}, {time(nullptr) - 60, 0}};
  for (int d = 0; d < 5; ++d) {
    fs::create_directories(root + "/d" + std::to_string(d));
    ::utimensat(AT_FDCWD, (root + "/d" + std::to_string(d)).c_str(), aMinuteAgo, 0);
  }
  Recorder recorder;
  FileEvents events(options());
  events.startWatching({root}, "w", recorder.queue(), std::nullopt, recorder.handler());
  events.waitUntilIdle();
  touch(root + "/d3/f");
  events.waitUntilIdle();
  recorder.clear();
  events.injectOverflow();
  events.waitUntilIdle();
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/d3", kFileEventFolderChanged)));
  recorder.queue()->sync([] {});
  EXPECT_FALSE(anyEventAt(recorder.events(), root + "/d1"));  // unchanged folders stay quiet
  EXPECT_EQ(events.statistics().overflows, 1);
}

// A real overflow: a queue of 16 events overflows under a burst, when this
// process may lower the limit for new inotify instances.
TEST_F(FileEventsTest, RealQueueOverflowLeavesTheMirrorTrue) {
  const char* limitFile = "/proc/sys/fs/inotify/max_queued_events";
  std::string saved;
  std::getline(std::ifstream(limitFile), saved);
  if (saved.empty() || !(std::ofstream(limitFile) << "16")) GTEST_SKIP() << "cannot lower max_queued_events here";
  Mirror mirror(root);
  std::unique_ptr<FileEvents> events;
  try {
    events = std::make_unique<FileEvents>(options());
  } catch (...) {
  }
  std::ofstream(limitFile) << saved;
  ASSERT_TRUE(events);
  events->startWatching({root}, "w", mirror.queue(), std::nullopt, mirror.handler());
  events->waitUntilIdle();
  for (int d = 0; d < 20; ++d) {
    fs::create_directories(root + "/o" + std::to_string(d));
    for (int f = 0; f < 100; ++f) touch(root + "/o" + std::to_string(d) + "/f" + std::to_string(f));
  }
  ASSERT_TRUE(settlesToDisk(*events, mirror, root, mirror.queue()));
  EXPECT_GE(events->statistics().overflows, 1);
}

TEST_F(FileEventsTest, MissingPathsAreWaitedForAndFollowedThroughRemoval) {
  const std::string missing = root + "/not/yet/there";
  Recorder recorder;
  FileEvents events(options());
  events.startWatching({missing}, "w", recorder.queue(), std::nullopt, recorder.handler());
  events.waitUntilIdle();
  fs::create_directories(root + "/not/yet");
  events.waitUntilIdle();
  fs::create_directories(missing + "/inside");
  ASSERT_TRUE(recorder.waitFor(eventAt(missing, kFileEventCreated | kFileEventMustScanSubDirs | kFileEventRootChanged)));
  events.waitUntilIdle();
  touch(missing + "/inside/f");
  ASSERT_TRUE(recorder.waitFor(eventAt(missing + "/inside/f", kFileEventCreated)));

  fs::remove_all(root + "/not");
  ASSERT_TRUE(recorder.waitFor(eventAt(missing, kFileEventRemoved | kFileEventRootChanged)));
  events.waitUntilIdle();
  recorder.clear();
  fs::create_directories(missing);
  ASSERT_TRUE(recorder.waitFor(eventAt(missing, kFileEventCreated | kFileEventRootChanged)));
  // Nothing outside the watched path was reported along the way.
  for (const auto& event : recorder.events()) EXPECT_TRUE(event.path.starts_with(missing)) << event.path;
}

TEST_F(FileEventsTest, WatchersShareFoldersAndKeepToTheirOwnPaths) {
  fs::create_directories(root + "/sub/x");
  fs::create_directories(root + "/.hidden");
  Recorder outer, inner, picky;
  FileEvents events(options());
  events.startWatching({root}, "outer", outer.queue(), std::nullopt, outer.handler());
  events.startWatching({root + "/sub"}, "inner", inner.queue(), std::nullopt, inner.handler());
  FileWatchOptions skipHidden;
  skipHidden.watchesFolder = [](std::string_view path) { return path.substr(path.rfind('/') + 1).front() != '.'; };
  events.startWatching({root}, "picky", picky.queue(), std::nullopt, picky.handler(), skipHidden);
  events.waitUntilIdle();
  EXPECT_EQ(events.statistics().watchedFolders, 4);  // w, sub, x, .hidden: one watch each

  touch(root + "/sub/x/f");
  touch(root + "/top");
  touch(root + "/.hidden/secret");
  ASSERT_TRUE(outer.waitFor(eventAt(root + "/.hidden/secret", kFileEventCreated)));
  ASSERT_TRUE(inner.waitFor(eventAt(root + "/sub/x/f", kFileEventCreated)));
  ASSERT_TRUE(picky.waitFor(eventAt(root + "/top", kFileEventCreated)));
  events.waitUntilIdle();
  inner.queue()->sync([] {});
  picky.queue()->sync([] {});
  EXPECT_FALSE(anyEventAt(inner.events(), root + "/top"));
  EXPECT_FALSE(anyEventAt(picky.events(), root + "/.hidden/secret"));

  // The refused folder itself is still an entry the picky watcher sees.
  fs::create_directories(root + "/.other");
  ASSERT_TRUE(picky.waitFor(eventAt(root + "/.other", kFileEventCreated | kFileEventIsDirectory)));
  EXPECT_FALSE(picky.waitFor(eventAt(root + "/.other", kFileEventMustScanSubDirs), 100ms));

  // The outer watcher gone for good, the inner one goes on.
  events.stopWatching("outer", /*keepsHistory=*/false);
  events.stopWatching("picky", /*keepsHistory=*/false);
  events.waitUntilIdle();
  touch(root + "/sub/x/g");
  ASSERT_TRUE(inner.waitFor(eventAt(root + "/sub/x/g", kFileEventCreated)));
  EXPECT_EQ(events.statistics().watchedFolders, 2);  // sub, x
}

TEST_F(FileEventsTest, AStoppedWatcherIsToldWhatItMissed) {
  FileEvents::Options opts = options();
  FileEventID before = 0;
  {
    Recorder recorder, resumed;
    FileEvents events(opts);
    events.startWatching({root}, "w", recorder.queue(), std::nullopt, recorder.handler());
    events.waitUntilIdle();
    touch(root + "/seen");
    ASSERT_TRUE(recorder.waitFor(eventAt(root + "/seen", kFileEventCreated)));
    events.stopWatching("w");
    events.waitUntilIdle();
    before = events.currentEventID();
    touch(root + "/while-asleep");
    ::unlink((root + "/seen").c_str());
    events.waitUntilIdle();

    events.startWatching({root}, "w", resumed.queue(), before, resumed.handler());
    auto done = resumed.waitFor([](const FileEvent& e) { return e.has(kFileEventHistoryDone); });
    ASSERT_TRUE(done);
    auto replayed = resumed.events();
    ASSERT_GE(replayed.size(), 3u);
    EXPECT_EQ(replayed[0].path, root + "/while-asleep");
    EXPECT_TRUE(replayed[0].has(kFileEventCreated));
    EXPECT_TRUE(anyEventAt(replayed, root + "/seen"));
    EXPECT_GT(replayed[0].id, before);
    touch(root + "/after");
    ASSERT_TRUE(resumed.waitFor(eventAt(root + "/after", kFileEventCreated)));
    before = events.currentEventID();
  }
  // A new process continues the ids, and cannot replay the old one's events.
  Recorder recorder;
  FileEvents restarted(opts);
  EXPECT_GT(restarted.currentEventID(), before);
  restarted.startWatching({root}, "w", recorder.queue(), before, recorder.handler());
  ASSERT_TRUE(recorder.waitFor([](const FileEvent& e) { return e.has(kFileEventHistoryIncomplete); }));
}

TEST_F(FileEventsTest, AJournalThatDroppedTheGapSaysSo) {
  auto opts = options();
  opts.journalBytes = 2000;  // a handful of events
  Recorder recorder, resumed;
  FileEvents events(opts);
  events.startWatching({root}, "w", recorder.queue(), std::nullopt, recorder.handler());
  events.waitUntilIdle();
  events.stopWatching("w");
  events.waitUntilIdle();
  FileEventID stoppedAt = events.currentEventID();
  for (int f = 0; f < 50; ++f) touch(root + "/f" + std::to_string(f));
  events.waitUntilIdle();
  events.startWatching({root}, "w", resumed.queue(), stoppedAt, resumed.handler());
  ASSERT_TRUE(resumed.waitFor([](const FileEvent& e) { return e.has(kFileEventHistoryIncomplete); }));
}

TEST_F(FileEventsTest, FoldersChangedSinceAMomentAreReportedOnArming) {
  fs::create_directories(root + "/old");
  fs::create_directories(root + "/changed");
  struct timespec past[2] = {{1000000000, 0}, {1000000000, 0}};
  ::utimensat(AT_FDCWD, (root + "/old").c_str(), past, 0);
  ::utimensat(AT_FDCWD, root.c_str(), past, 0);
  const double moment = static_cast<double>(::time(nullptr)) - 1;
  touch(root + "/changed/new");
  Recorder recorder;
  FileEvents events(options());
  FileWatchOptions watchOptions;
  watchOptions.reportsFoldersChangedSince = moment;
  events.startWatching({root}, "w", recorder.queue(), std::nullopt, recorder.handler(), watchOptions);
  events.waitUntilIdle();
  ASSERT_TRUE(recorder.waitFor(eventAt(root + "/changed", kFileEventFolderChanged)));
  recorder.queue()->sync([] {});
  EXPECT_FALSE(anyEventAt(recorder.events(), root + "/old"));
  EXPECT_FALSE(anyEventAt(recorder.events(), root));
}

}  // namespace
}  // namespace quorvi

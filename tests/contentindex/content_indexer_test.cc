// The content index over a real file index of a temporary home: built in the
// background, kept current by file events, resumed after a restart.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "common/dispatch.h"
#include "common/settings.h"
#include "contentindex/content_indexer.h"
#include "contentindex/document_maker.h"
#include "fileindex/file_indexer.h"
#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

using namespace std::chrono_literals;

class ContentIndexerTest : public ::testing::Test {
 protected:
  ContentIndexerTest()
      : home_(dir_.path() + "/home"),
        settings_(dir_.path() + "/settings.json"),
        events_(eventOptions(dir_.path() + "/events")) {
    ::mkdir(home_.c_str(), 0755);
    files_ = std::make_unique<FileIndexer>(
        FilterEnvironment{home_, dir_.path() + "/prefs/FileIndexIgnorePaths", &settings_});
  }
  ~ContentIndexerTest() override {
    content_.reset();
    files_->waitForPendingChanges();
  }

  static FileEvents::Options eventOptions(std::string state) {
    FileEvents::Options options;
    options.stateDirectory = std::move(state);
    return options;
  }
  std::string write(const std::string& relative, const std::string& text) { return dir_.write("home/" + relative, text); }
  void makeContentIndex() {
    ContentIndexer::Options options;
    options.databasePath = dir_.path() + "/content.sqlite3";
    options.fileEvents = &events_;
    options.batchDocuments = 3;  // several transactions per pass
    content_ = std::make_unique<ContentIndexer>(*files_, options);
  }
  void indexHome() {
    DispatchQueue::main().sync([&] { files_->startIndexing({home_}); });
    files_->waitForPendingChanges();
    content_->waitUntilIdle();
  }
  std::vector<std::string> find(const std::string& word) {
    std::vector<std::string> paths;
    content_->search(ftsTermOfWord(word, true), 100, [&](const ContentHit& hit) {
      paths.push_back(hit.path);
      return true;
    });
    std::sort(paths.begin(), paths.end());
    return paths;
  }
  void applyAndWait(std::vector<FileEvent> events) {
    content_->apply(std::move(events));
    content_->waitUntilIdle();
  }
  // A new modification time, so that a rewrite is seen even within one tick.
  static void touch(const std::string& path, time_t seconds) {
    timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
  }

  TemporaryDirectory dir_;
  std::string home_;
  Settings settings_;
  FileEvents events_;
  std::unique_ptr<FileIndexer> files_;
  std::unique_ptr<ContentIndexer> content_;
};

TEST_F(ContentIndexerTest, BuildsFromTheFileIndexInEveryFormat) {
  std::string notes = write("notes.txt", "alpha plans for the week");
  std::string readme = write("docs/readme.md", "# Markdown beta");
  std::string page = write("docs/page.html", "<p>gamma</p><script>delta()</script>");
  std::string pdf = write("docs/paper.pdf", makePdf({"epsilon zeta"}));
  std::string odt = home_ + "/docs/letter.odt";
  ASSERT_TRUE(writeOdt(odt, {"theta"}));
  std::string docx = home_ + "/docs/memo.docx";
  ASSERT_TRUE(writeDocx(docx, {{"io", "ta"}}));
  std::string chinese = write("中文/总结.md", "今年的年度报告已经完成");
  write("photo.jpg", "kappa");
  write(".hidden/secret.txt", "lambda");
  write("node_modules/pkg/x.txt", "mu");
  touch(notes, 1500000000);  // an access time a day old or more is renewed by a plain read
  makeContentIndex();
  indexHome();

  EXPECT_EQ(find("alpha"), std::vector<std::string>{notes});
  EXPECT_EQ(find("beta"), std::vector<std::string>{readme});
  EXPECT_EQ(find("gamma"), std::vector<std::string>{page});
  EXPECT_TRUE(find("delta").empty());
  EXPECT_EQ(find("zeta"), std::vector<std::string>{pdf});
  EXPECT_EQ(find("theta"), std::vector<std::string>{odt});
  EXPECT_EQ(find("iota"), std::vector<std::string>{docx});
  EXPECT_EQ(find("报告"), std::vector<std::string>{chinese});
  EXPECT_TRUE(find("kappa").empty());   // not a document
  EXPECT_TRUE(find("lambda").empty());  // hidden: not in the file index
  EXPECT_TRUE(find("mu").empty());      // ignored folder

  // Reading a document for the index leaves its access time alone.
  struct stat info;
  ASSERT_EQ(::stat(notes.c_str(), &info), 0);
  EXPECT_EQ(info.st_atim.tv_sec, 1500000000);

  ContentIndexProgress progress = content_->progress();
  EXPECT_EQ(progress.documents, 7);
  EXPECT_EQ(progress.documentsWithText, 7);
  EXPECT_EQ(progress.extracted, 7);
  EXPECT_EQ(progress.pending, 0);
  EXPECT_GE(progress.passes, 1);
  EXPECT_FALSE(progress.isIndexing);
  Json json = progress.toJson();
  EXPECT_EQ(json["documents"], 7);
  EXPECT_TRUE(json.contains("megabytesPerSecond"));
}

TEST_F(ContentIndexerTest, FollowsTheChangesItIsTold) {
  std::string notes = write("notes.txt", "alpha");
  std::string readme = write("readme.md", "beta");
  std::string gone = write("gone.txt", "gamma");
  write("old/inside.txt", "delta");
  makeContentIndex();
  indexHome();
  ASSERT_EQ(find("delta").size(), 1u);

  write("notes.txt", "omega rewritten");
  touch(notes, 2000000000);
  std::string renamed = home_ + "/renamed.md";
  ASSERT_EQ(::rename(readme.c_str(), renamed.c_str()), 0);
  ::unlink(gone.c_str());
  std::string created = write("new.txt", "epsilon");
  std::string folder = home_ + "/fresh";
  write("fresh/a.txt", "zeta");
  write("fresh/deeper/b.md", "zeta");
  write("fresh/.hidden.txt", "zeta");
  std::string old = home_ + "/old";
  ::unlink((old + "/inside.txt").c_str());
  ::rmdir(old.c_str());
  applyAndWait({{1, notes, kFileEventModified, ""},
                {2, renamed, kFileEventRenamed, readme},
                {3, gone, kFileEventRemoved, ""},
                {4, created, kFileEventCreated, ""},
                {5, folder, kFileEventCreated | kFileEventIsDirectory | kFileEventMustScanSubDirs, ""},
                {6, old, kFileEventRemoved | kFileEventIsDirectory, ""}});

  EXPECT_TRUE(find("alpha").empty());
  EXPECT_EQ(find("omega"), std::vector<std::string>{notes});
  EXPECT_EQ(find("beta"), std::vector<std::string>{renamed});
  EXPECT_TRUE(find("gamma").empty());
  EXPECT_EQ(find("epsilon"), std::vector<std::string>{created});
  EXPECT_EQ(find("zeta"), std::vector<std::string>({folder + "/a.txt", folder + "/deeper/b.md"}));
  EXPECT_TRUE(find("delta").empty());
  EXPECT_GE(content_->progress().fileEventsHandled, 6);

  // A gap in the history: everything is compared again.
  write("missed.txt", "eta");
  DispatchQueue::main().sync([&] { files_->startIndexing({home_}); });
  files_->waitForPendingChanges();
  applyAndWait({{7, "", kFileEventHistoryIncomplete, ""}});
  content_->waitUntilIdle();
  EXPECT_EQ(find("eta").size(), 1u);
}

TEST_F(ContentIndexerTest, ARestartReadsOnlyWhatChanged) {
  std::string same = write("same.txt", "steady words");
  std::string changed = write("changed.txt", "before");
  makeContentIndex();
  indexHome();
  ASSERT_EQ(content_->progress().extracted, 2);
  content_.reset();

  write("changed.txt", "after the restart");
  touch(changed, 2000000000);
  std::string added = write("added.txt", "newcomer");
  makeContentIndex();
  indexHome();
  EXPECT_EQ(content_->progress().extracted, 2);  // the changed and the new one, not the steady one
  EXPECT_EQ(find("steady"), std::vector<std::string>{same});
  EXPECT_EQ(find("after"), std::vector<std::string>{changed});
  EXPECT_TRUE(find("before").empty());
  EXPECT_EQ(find("newcomer"), std::vector<std::string>{added});

  // A scope removed from the file index takes its documents along.
  DispatchQueue::main().sync([&] { files_->startIndexing({home_ + "/nowhere"}); });
  files_->waitForPendingChanges();
  content_->waitUntilIdle();
  EXPECT_TRUE(find("steady").empty());
  EXPECT_EQ(content_->progress().documents, 0);
}

TEST_F(ContentIndexerTest, FollowsTheDiskThroughFileEvents) {
  std::string first = write("first.txt", "opening words");
  write("folder/inner.md", "nested words");
  makeContentIndex();
  indexHome();
  events_.waitUntilIdle();
  if (events_.statistics().watchBudget == 0) GTEST_SKIP() << "no file-event watching on this build";
  // Waits until the index answers `word` with `expected`.
  auto settles = [&](const std::string& word, const std::vector<std::string>& expected) {
    auto deadline = std::chrono::steady_clock::now() + 30s;
    while (find(word) != expected && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(20ms);
      events_.waitUntilIdle();
      content_->waitUntilIdle();
    }
    return find(word) == expected;
  };
  std::string later = write("later.txt", "arrived afterwards");
  EXPECT_TRUE(settles("afterwards", {later}));
  write("first.txt", "rewritten closing");
  EXPECT_TRUE(settles("closing", {first}));
  EXPECT_TRUE(settles("opening", {}));
  ASSERT_EQ(::rename((home_ + "/folder").c_str(), (home_ + "/moved").c_str()), 0);
  EXPECT_TRUE(settles("nested", {home_ + "/moved/inner.md"}));
  ::unlink(later.c_str());
  EXPECT_TRUE(settles("afterwards", {}));
}

}  // namespace
}  // namespace quorvi::testing

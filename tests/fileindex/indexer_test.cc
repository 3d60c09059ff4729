// FileIndexer's states as a client sees them, directly and over the bus, and
// searches racing scans and scope removals.
#include <atomic>
#include <thread>

#include "common/notification_center.h"
#include "index_fixture.h"

namespace quorvi::testing {
namespace {

using namespace std::chrono_literals;

class StateCounter {
 public:
  StateCounter() {
    token_ = NotificationCenter::shared().addObserver(kFileIndexStateDidChange, [this](const std::string&) { ++posts; });
  }
  ~StateCounter() { NotificationCenter::shared().removeObserver(token_); }
  std::atomic<int> posts{0};

 private:
  uint64_t token_;
};

TEST(IndexerState, NeverIndexedIndexingReadyAndEmptied) {
  IndexTree tree;
  tree.file("d/a.txt");
  tree.file("d/b.txt");
  FileIndexer indexer(tree.environment(), false, &testFileEvents());
  StateCounter counter;
  auto never = indexer.state();
  EXPECT_FALSE(never.isIndexing);
  EXPECT_FALSE(never.indexResultDescription);
  EXPECT_FALSE(never.indexDescription);
  EXPECT_TRUE(indexer.searchFiles("a", 10).empty());

  // Indexing: seen from the main thread before the scan can finish (the scan
  // waits behind a blocked mutation queue).
  std::atomic<bool> release{false};
  indexer.fseventQueue().async([&] { while (!release) std::this_thread::sleep_for(1ms); });
  onMain([&] { indexer.startIndexing({"~/d"}); });
  auto indexing = indexer.state();
  EXPECT_TRUE(indexing.isIndexing);
  EXPECT_FALSE(indexing.indexResultDescription);
  EXPECT_EQ(indexing.indexDescription, "");
  EXPECT_EQ(counter.posts, 1);
  release = true;
  indexer.waitForPendingChanges();

  auto ready = indexer.state();
  EXPECT_FALSE(ready.isIndexing);
  ASSERT_TRUE(ready.indexResultDescription);
  EXPECT_TRUE(ready.indexResultDescription->isReady);
  EXPECT_EQ(ready.indexResultDescription->countOfFiles, 2);
  EXPECT_GE(ready.indexResultDescription->consumeTime, 0);
  EXPECT_NEAR(ready.indexResultDescription->finalChangedTime, secondsSince1970(), 60);
  EXPECT_TRUE(ready.indexDescription->starts_with("#fs ends 2 in "));
  EXPECT_EQ(counter.posts, 2);
  EXPECT_EQ(ready.indexResultDescription->toJson().dump(),
            "{\"isReady\":true,\"countOfFiles\":2,\"consumeTime\":" +
                Json(ready.indexResultDescription->consumeTime).dump() + ",\"finalChangedTime\":" +
                Json(ready.indexResultDescription->finalChangedTime).dump() + "}");

  // Removing the scope drops its records; the summary follows and is announced.
  onMain([&] { indexer.removeSearchScopes({"~/d"}); });
  indexer.waitForPendingChanges();
  EXPECT_EQ(indexer.state().indexResultDescription->countOfFiles, 0);
  EXPECT_EQ(counter.posts, 3);

  onMain([&] { indexer.startIndexing({}); });
  auto emptied = indexer.state();
  EXPECT_FALSE(emptied.isIndexing);
  ASSERT_TRUE(emptied.indexResultDescription);
  EXPECT_EQ(emptied.indexResultDescription->countOfFiles, 0);
  EXPECT_EQ(emptied.indexResultDescription->consumeTime, 0);
  EXPECT_FALSE(emptied.indexDescription);
  EXPECT_TRUE(indexer.isEmpty());
  EXPECT_EQ(counter.posts, 4);
}

TEST(IndexerState, ANewStartSupersedesAScanUnderWay) {
  IndexTree tree;
  tree.file("one/a.txt");
  tree.file("two/b.txt");
  FileIndexer indexer(tree.environment(), false, &testFileEvents());
  std::atomic<bool> release{false};
  indexer.fseventQueue().async([&] { while (!release) std::this_thread::sleep_for(1ms); });
  onMain([&] {
    indexer.startIndexing({"~/one"});
    indexer.startIndexing({"~/two"});
  });
  release = true;
  indexer.waitForPendingChanges();
  EXPECT_EQ(namesOf(allRecords(indexer)), std::vector<std::string>{"b.txt"});
  EXPECT_EQ(indexer.state().indexResultDescription->countOfFiles, 1);
}

// Run once under ThreadSanitizer (build with -DQUORVI_TSAN=ON).
TEST(IndexerRace, SearchesRacingScansAndScopeRemovalsStayConsistent) {
  IndexTree tree;
  for (int i = 0; i < 400; ++i) tree.file("p" + std::to_string(i % 4) + "/d" + std::to_string(i % 9) + "/file" + std::to_string(i) + ".txt");
  FileIndexer indexer(tree.environment(), false, &testFileEvents());
  indexScopes(indexer, {"~/p0", "~/p1", "~/p2", "~/p3"});
  std::atomic<bool> done{false};
  std::atomic<long> searches{0};
  std::vector<std::thread> searchers;
  for (int t = 0; t < 2; ++t) {
    searchers.emplace_back([&] {
      while (!done) {
        for (const auto& file : indexer.searchFiles("file1", 50)) {
          EXPECT_TRUE(file.nameOfDisplay.starts_with("file1"));
        }
        indexer.searchFiles(tree.home() + "/p1", "d", 20);
        indexer.containsFile(tree.home() + "/p2/d0/file2.txt");
        indexer.performanceSnapshot();
        ++searches;
      }
    });
  }
  for (int round = 0; round < 6; ++round) {
    onMain([&] { indexer.startIndexing({"~/p0", "~/p1", "~/p2", "~/p3"}); });
    onMain([&] { indexer.removeSearchScopes({"~/p1"}); });
    onMain([&] { indexer.addSearchScopes({"~/p1"}); });
    onMain([&] { indexer.removeSearchScopes({"~/p3"}); });
  }
  indexer.waitForPendingChanges();
  done = true;
  for (auto& t : searchers) t.join();
  EXPECT_GT(searches.load(), 0);
  // p0 + p2 + p1 (added back) remain: 300 files and 27 folders.
  EXPECT_EQ(allRecords(indexer).size(), 327u);
  EXPECT_FALSE(indexer.containsFile(tree.home() + "/p3/d3/file3.txt"));
  EXPECT_TRUE(indexer.containsFile(tree.home() + "/p1/d1/file1.txt"));
}

// The same states through the real service on a private bus.
class IndexerOverBus : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.ok());
    home_.write("docs/plan-a.txt", "a");
    home_.write("docs/plan-b.txt", "b");
    home_.write("docs/node_modules/plan-c.txt", "c");
    service_ = std::make_unique<ServiceProcess>(bus_, home_.path());
    ASSERT_TRUE(service_->ok()) << service_->output();
    client_ = bus_.connect();
    ASSERT_TRUE(client_ && client_->subscribe("fileIndexStateDidChange"));
  }
  BusClient::CallResult call(const std::string& member, const std::vector<std::string>& words) {
    return callMember(*client_, member, words);
  }
  TemporaryDirectory home_;
  TestBus bus_;
  std::unique_ptr<ServiceProcess> service_;
  std::unique_ptr<BusClient> client_;
};

TEST_F(IndexerOverBus, SummaryStatesAndSearch) {
  auto never = call("getFileIndexResultDescriptionWithCompletion:", {});
  ASSERT_TRUE(never.ok) << never.errorMessage;
  ASSERT_EQ(never.values.size(), 2u);
  EXPECT_FALSE(never.values[0].value);
  EXPECT_FALSE(never.values[1].value);
  auto empty = call("searchFilesWithQuery:maxcount:completion:", {"plan", "10"});
  ASSERT_TRUE(empty.ok);
  EXPECT_FALSE(empty.values[0].value);

  int seen = client_->signalCount("fileIndexStateDidChange");
  ASSERT_TRUE(call("startIndexFilesWithSearchScopes:", {"[\"~/docs\"]"}).ok);
  // Indexing, then ready: two signals.
  ASSERT_TRUE(client_->waitForSignal("fileIndexStateDidChange", seen + 1, 10s));
  for (int i = 0; i < 200; ++i) {
    auto r = call("getFileIndexResultDescriptionWithCompletion:", {});
    if (r.values[0].value) break;
    std::this_thread::sleep_for(20ms);
  }
  auto ready = call("getFileIndexResultDescriptionWithCompletion:", {});
  ASSERT_TRUE(ready.values[0].value);
  Json summary = Json::parse(*ready.values[0].value);
  EXPECT_EQ(summary["isReady"], true);
  EXPECT_EQ(summary["countOfFiles"], 2);  // node_modules and what it holds are ignored
  ASSERT_TRUE(ready.values[1].value);
  EXPECT_TRUE(ready.values[1].value->starts_with("#fs ends "));

  auto hits = call("searchFilesWithQuery:maxcount:completion:", {"plan", "10"});
  ASSERT_TRUE(hits.values[0].value);
  Json array = Json::parse(*hits.values[0].value);
  ASSERT_EQ(array.size(), 2u);
  EXPECT_EQ(array[0].begin().key(), "nameOfDisplay");
  EXPECT_TRUE(array[0]["path"].get<std::string>().starts_with(home_.path() + "/docs/plan-"));
  EXPECT_EQ(array[0]["isFolder"], false);
  auto contains = call("containsFileAt:completionHandler:", {home_.path() + "/docs/plan-a.txt"});
  EXPECT_TRUE(contains.values[0].flag);
  auto zero = call("searchFilesWithQuery:maxcount:completion:", {"plan", "-5"});
  EXPECT_TRUE(zero.ok);

  ASSERT_TRUE(call("startIndexFilesWithSearchScopes:", {"[]"}).ok);
  for (int i = 0; i < 200; ++i) {
    auto r = call("getFileIndexResultDescriptionWithCompletion:", {});
    if (r.values[0].value && Json::parse(*r.values[0].value)["countOfFiles"] == 0) break;
    std::this_thread::sleep_for(20ms);
  }
  auto emptied = call("getFileIndexResultDescriptionWithCompletion:", {});
  ASSERT_TRUE(emptied.values[0].value);
  EXPECT_EQ(Json::parse(*emptied.values[0].value)["countOfFiles"], 0);
  EXPECT_FALSE(emptied.values[1].value);
  auto snapshot = call("getPerformanceSnapshotWithCompletion:", {});
  ASSERT_TRUE(snapshot.values[0].value);
  EXPECT_EQ(Json::parse(*snapshot.values[0].value)["countOfFiles"], 0);
}

}  // namespace
}  // namespace quorvi::testing

// The chunked searches on the dispatch layer: every element searched once,
// results equal to the synchronous search, one completion on the main queue.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#include "common/dispatch.h"
#include "fuse/fuse.h"

namespace quorvi {
namespace {

// Serves the main queue on its own thread for the whole test binary.
class MainQueueEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    runner_ = std::thread([] { DispatchQueue::runMain(); });
    // Returns once the main queue is served, so that TearDown's stop is not lost.
    DispatchQueue::main().sync([] {});
  }
  void TearDown() override {
    DispatchQueue::stopMain();
    runner_.join();
  }

 private:
  std::thread runner_;
};
const auto* const kMainQueue = ::testing::AddGlobalTestEnvironment(new MainQueueEnvironment);

// Counts how often its properties are read, i.e. how often it is searched.
struct CountedRecord : Fuseable {
  std::string name;
  mutable std::atomic<int> reads{0};
  explicit CountedRecord(std::string name) : name(std::move(name)) {}
  std::vector<FuseProperty> properties() const override {
    reads.fetch_add(1);
    return {FuseProperty(name)};
  }
};

std::vector<std::string> sampleNames(int count) {
  const char* stems[] = {"Terminal", "Safari", "Preview", "Calendar", "notes.txt", "Visual Studio Code",
                         "report-final.pdf", "北京地图", "Caf\xC3\xA9 Menu"};
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) names.push_back(std::string(stems[i % 9]) + " " + std::to_string(i));
  return names;
}

template <typename Result>
struct Completion {
  std::atomic<int> calls{0};
  std::atomic<bool> onMain{false};
  std::promise<std::vector<Result>> promise;
  std::function<void(std::vector<Result>)> handler() {
    return [this](std::vector<Result> results) {
      onMain = DispatchQueue::main().isCurrent();
      if (calls.fetch_add(1) == 0) promise.set_value(std::move(results));
    };
  }
  std::vector<Result> wait() {
    auto results = promise.get_future().get();
    // Anything else queued on the main queue before now has run by now.
    DispatchQueue::main().sync([] {});
    return results;
  }
};

TEST(FuseChunkedTest, StringsMatchTheSynchronousSearch) {
  Fuse fuse(0, 100, 0.6, 32, false, false);
  const auto names = sampleNames(1003);
  Completion<FuseStringResult> done;
  fuse.search("term", names, 100, done.handler());
  auto results = done.wait();
  EXPECT_EQ(done.calls.load(), 1);
  EXPECT_TRUE(done.onMain.load());
  auto expected = fuse.search("term", names);
  ASSERT_EQ(results.size(), expected.size());
  ASSERT_FALSE(results.empty());
  for (std::size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].index, expected[i].index);
    EXPECT_EQ(results[i].score, expected[i].score);
    EXPECT_EQ(results[i].ranges, expected[i].ranges);
  }
  EXPECT_EQ(fuse.searchQueue()->label(), "fuse.search.queue");
  EXPECT_EQ(fuse.searchQueue(), fuse.searchQueue());
}

TEST(FuseChunkedTest, EveryItemIsSearchedOnce) {
  const auto names = sampleNames(257);
  std::vector<FuseableRef> items;
  std::vector<std::shared_ptr<CountedRecord>> records;
  for (const auto& name : names) {
    records.push_back(std::make_shared<CountedRecord>(name));
    items.push_back(records.back());
  }
  for (long chunkSize : {1L, 16L, 256L, 257L, 1000L, 0L, -3L}) {
    for (auto& record : records) record->reads = 0;
    Fuse fuse(0, 100, 0.6, 32, false, true);
    Completion<FuseItemResult> done;
    fuse.search("safari 1", items, chunkSize, done.handler());
    auto results = done.wait();
    EXPECT_EQ(done.calls.load(), 1) << chunkSize;
    for (auto& record : records) ASSERT_EQ(record->reads.load(), 1) << chunkSize << " " << record->name;
    auto expected = fuse.search("safari 1", items);
    ASSERT_EQ(results.size(), expected.size()) << chunkSize;
    for (std::size_t i = 0; i < results.size(); ++i) EXPECT_EQ(results[i].score, expected[i].score);
  }
}

TEST(FuseChunkedTest, EmptyPatternOrListCompletesWithNothing) {
  Fuse fuse(0, 100, 0.6, 32, false, false);
  Completion<FuseStringResult> emptyPattern;
  fuse.search("", sampleNames(50), 10, emptyPattern.handler());
  EXPECT_TRUE(emptyPattern.wait().empty());
  EXPECT_EQ(emptyPattern.calls.load(), 1);

  Completion<FuseStringResult> emptyList;
  fuse.search("abc", std::vector<std::string>{}, 10, emptyList.handler());
  EXPECT_TRUE(emptyList.wait().empty());

  Completion<FuseStringResult> nullList;
  fuse.search("abc", std::shared_ptr<const std::vector<std::string>>{}, 10, nullList.handler());
  EXPECT_TRUE(nullList.wait().empty());
  EXPECT_EQ(nullList.calls.load(), 1);

  auto record = std::make_shared<CountedRecord>("abc");
  Completion<FuseItemResult> emptyItemsPattern;
  fuse.search("", std::vector<FuseableRef>{record}, 10, emptyItemsPattern.handler());
  EXPECT_TRUE(emptyItemsPattern.wait().empty());
  EXPECT_EQ(record->reads.load(), 0);
}

struct ThrowingRecord : Fuseable {
  std::vector<FuseProperty> properties() const override { throw std::runtime_error("unreadable"); }
};

TEST(FuseChunkedTest, AnItemThatThrowsIsLeftOut) {
  Fuse fuse(0, 100, 0.6, 32, false, false);
  std::vector<FuseableRef> items{std::make_shared<CountedRecord>("notes"), std::make_shared<ThrowingRecord>(),
                                 std::make_shared<CountedRecord>("notes 2")};
  Completion<FuseItemResult> done;
  fuse.search("notes", items, 1, done.handler());
  auto results = done.wait();
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].index, 0);
  EXPECT_EQ(results[1].index, 2);
  EXPECT_EQ(done.calls.load(), 1);
}

TEST(FuseChunkedTest, MatcherMayGoAwayBeforeTheCompletion) {
  Completion<FuseStringResult> done;
  {
    Fuse fuse(0, 100, 0.6, 32, false, false);
    fuse.search("notes", sampleNames(2000), 7, done.handler());
  }
  EXPECT_FALSE(done.wait().empty());
  EXPECT_EQ(done.calls.load(), 1);
}

}  // namespace
}  // namespace quorvi

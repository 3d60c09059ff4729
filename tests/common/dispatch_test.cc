#include "common/dispatch.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include <atomic>
#include <future>
#include <set>
#include <thread>

namespace quorvi {
namespace {

TEST(DispatchQueueTest, SerialQueueRunsOneItemAtATimeInOrder) {
  auto queue = DispatchQueue::makeSerial("com.quorvi.test.serial");
  std::vector<int> order;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  DispatchGroup group;
  for (int i = 0; i < 200; ++i) {
    group.async(*queue, [&, i] {
      if (inside.fetch_add(1) != 0) overlapped = true;
      order.push_back(i);
      inside.fetch_sub(1);
    });
  }
  ASSERT_TRUE(group.wait(std::chrono::seconds(10)));
  EXPECT_FALSE(overlapped);
  ASSERT_EQ(order.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(order[i], i);
}

TEST(DispatchQueueTest, SyncOnTheCurrentQueueRunsInline) {
  auto queue = DispatchQueue::makeSerial("com.quorvi.test.reentrant");
  bool ran = false;
  queue->sync([&] {
    EXPECT_TRUE(queue->isCurrent());
    queue->sync([&] { ran = true; });  // would deadlock if it queued
  });
  EXPECT_TRUE(ran);
  EXPECT_FALSE(queue->isCurrent());
}

TEST(DispatchQueueTest, CancelledDelayedItemNeverRuns) {
  auto queue = DispatchQueue::makeSerial("com.quorvi.test.delay");
  std::atomic<int> runs{0};
  auto cancelled = queue->asyncAfter(DispatchQueue::Seconds(0.05), [&] { runs += 100; });
  cancelled->cancel();
  std::promise<void> done;
  queue->asyncAfter(DispatchQueue::Seconds(0.1), [&] {
    runs += 1;
    done.set_value();
  });
  ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(runs, 1);
}

// Waits (up to 5 s) until the condition holds.
template <typename Condition>
bool eventually(Condition condition) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Cancel-and-reschedule (a cache expiry, a throttler) must not pile up armed
// timers that hold their work, and what the work captured, for an hour.
TEST(DispatchQueueTest, CancellingADelayedItemReleasesItsTimerAndWork) {
  auto serial = DispatchQueue::makeSerial("com.quorvi.test.timers");
  auto background = DispatchQueue::makeSerial("com.quorvi.test.timers.bg", QualityOfService::background);
  std::thread mainThread([] { DispatchQueue::runMain(); });
  for (DispatchQueue* queue : {serial.get(), background.get(), &DispatchQueue::global(), &DispatchQueue::main()}) {
    const std::size_t armedBefore = DispatchQueue::armedTimerCount();
    auto captured = std::make_shared<int>(0);
    for (int i = 0; i < 500; ++i) {
      auto item = queue->asyncAfter(DispatchQueue::Seconds(3600), [captured] { (*captured)++; });
      item->cancel();
    }
    EXPECT_TRUE(eventually([&] { return DispatchQueue::armedTimerCount() <= armedBefore; }))
        << queue->label() << ": " << DispatchQueue::armedTimerCount() - armedBefore << " timers still armed";
    EXPECT_TRUE(eventually([&] { return captured.use_count() == 1; }))
        << queue->label() << ": cancelled work still held " << captured.use_count() - 1 << " times";
    EXPECT_EQ(*captured, 0);
  }
  // An item cancelled after its timer fired changes nothing; one not
  // cancelled still runs after its delay.
  std::promise<void> ran;
  auto item = serial->asyncAfter(DispatchQueue::Seconds(0.01), [&] { ran.set_value(); });
  ASSERT_EQ(ran.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  item->cancel();
  DispatchQueue::stopMain();
  mainThread.join();
}

TEST(DispatchQueueTest, MainQueueRunsOnTheThreadThatServesIt) {
  std::promise<std::thread::id> ranOn;
  std::thread mainThread([] { DispatchQueue::runMain(); });
  DispatchQueue::main().async([&] {
    EXPECT_TRUE(DispatchQueue::main().isCurrent());
    ranOn.set_value(std::this_thread::get_id());
  });
  auto future = ranOn.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(future.get(), mainThread.get_id());
  DispatchQueue::stopMain();
  mainThread.join();
}

TEST(DispatchQueueTest, AStopBeforeTheMainQueueRunsIsNotLost) {
  DispatchQueue::stopMain();
  std::promise<void> returned;
  std::thread mainThread([&] {
    DispatchQueue::runMain();  // must return at once
    returned.set_value();
  });
  EXPECT_EQ(returned.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  if (mainThread.joinable()) mainThread.join();
}

TEST(DispatchGroupTest, NotifyRunsOnceAfterTheLastLeave) {
  DispatchGroup group;
  auto queue = DispatchQueue::makeSerial("com.quorvi.test.notify");
  std::atomic<int> finished{0};
  std::promise<int> notified;
  for (int i = 0; i < 20; ++i) group.async(DispatchQueue::global(), [&] { finished++; });
  group.notify(*queue, [&] { notified.set_value(finished.load()); });
  auto future = notified.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(future.get(), 20);
}

TEST(ConcurrentPerformTest, EveryIndexOnceEvenFromInsideThePool) {
  constexpr std::size_t kCount = 10000;
  std::vector<std::atomic<int>> hits(kCount);
  concurrentPerform(kCount, [&](std::size_t i) { hits[i]++; });
  for (auto& h : hits) ASSERT_EQ(h.load(), 1);

  // Every pool thread nests a parallel-for: none may wait for helpers that
  // can never start.
  std::atomic<int> total{0};
  concurrentPerform(DispatchQueue::globalThreadCount() * 2, [&](std::size_t) {
    concurrentPerform(50, [&](std::size_t) { total++; });
  });
  EXPECT_EQ(total, int(DispatchQueue::globalThreadCount() * 2 * 50));
  concurrentPerform(0, [](std::size_t) { FAIL(); });
}

TEST(BackgroundQueueTest, BusyBackgroundPoolLeavesRequestThreadsFreeAndRunsNiced) {
  // Occupy every background thread until released.
  std::mutex mutex;
  std::condition_variable released;
  bool release = false;
  std::atomic<int> started{0}, finished{0};
  std::atomic<int> niceSeen{-100};
  const std::size_t backgroundThreads = DispatchQueue::threadCount(QualityOfService::background);
  for (std::size_t i = 0; i < backgroundThreads; ++i) {
    DispatchQueue::background().async([&] {
      niceSeen = ::getpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()));
      started++;
      {
        std::unique_lock lock(mutex);
        released.wait(lock, [&] { return release; });
      }
      finished++;
    });
  }
  while (started.load() < int(backgroundThreads)) std::this_thread::yield();
  EXPECT_GT(niceSeen.load(), 0);

  // A request still runs at once on the userInitiated pool.
  std::promise<void> ran;
  DispatchQueue::global().async([&] { ran.set_value(); });
  EXPECT_EQ(ran.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);

  // A serial background queue waits its turn, then runs in order.
  auto serial = DispatchQueue::makeSerial("com.quorvi.test.background", QualityOfService::background);
  std::promise<bool> onQueue;
  serial->async([&] { onQueue.set_value(serial->isCurrent() && !DispatchQueue::global().isCurrent()); });
  {
    std::lock_guard lock(mutex);
    release = true;
  }
  released.notify_all();
  auto future = onQueue.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_TRUE(future.get());
  // The blockers use this frame's lock: wait until they have let go of it.
  while (finished.load() < int(backgroundThreads)) std::this_thread::yield();
}

}  // namespace
}  // namespace quorvi

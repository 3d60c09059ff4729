// The throttler's timing rules. Margins are generous: the machine is shared,
// and what matters is which rule applied (0 s, the whole delay, or a part of it).
#include "common/throttler.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

namespace quorvi {
namespace {

using Clock = std::chrono::steady_clock;

struct RunLog {
  std::mutex mutex;
  std::vector<std::pair<int, Clock::time_point>> runs;
  void add(int id) {
    std::lock_guard lock(mutex);
    runs.emplace_back(id, Clock::now());
  }
  std::size_t size() {
    std::lock_guard lock(mutex);
    return runs.size();
  }
  bool waitFor(std::size_t count, std::chrono::milliseconds timeout) {
    auto deadline = Clock::now() + timeout;
    while (size() < count) {
      if (Clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
  }
};

double secondsBetween(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

TEST(ThrottlerTest, DefaultPolicyRunsFirstCallAtOnceThenWaitsTheWholeDelay) {
  auto queue = DispatchQueue::makeSerial("com.quorvi.test.throttle");
  auto throttler = Throttler::make(DelayPolicy::default_, queue, 1.0);
  RunLog log;
  auto start = Clock::now();
  throttler->throttle([&] { log.add(1); });
  ASSERT_TRUE(log.waitFor(1, std::chrono::seconds(2)));
  EXPECT_LT(secondsBetween(start, log.runs[0].second), 0.2);

  // 0.3 s after the first work ran: the full 1.0 s, not the 0.7 s remaining.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  auto second = Clock::now();
  throttler->throttle([&] { log.add(2); });
  ASSERT_TRUE(log.waitFor(2, std::chrono::seconds(3)));
  double waited = secondsBetween(second, log.runs[1].second);
  EXPECT_GE(waited, 0.95);
  EXPECT_LT(waited, 1.5);
}

TEST(ThrottlerTest, BurstRunsOnlyTheLastWorkOnce) {
  auto queue = DispatchQueue::makeSerial("com.quorvi.test.burst");
  auto throttler = Throttler::make(DelayPolicy::always, queue, 0.2);
  RunLog log;
  for (int i = 0; i < 10; ++i) throttler->throttle([&, i] { log.add(i); });
  ASSERT_TRUE(log.waitFor(1, std::chrono::seconds(3)));
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log.runs[0].first, 9);
}

TEST(ThrottlerTest, AlwaysPolicyWaitsEvenTheFirstTime) {
  auto queue = DispatchQueue::makeSerial("com.quorvi.test.always");
  auto throttler = Throttler::make(DelayPolicy::always, queue, 0.3);
  RunLog log;
  auto start = Clock::now();
  throttler->throttle([&] { log.add(1); });
  ASSERT_TRUE(log.waitFor(1, std::chrono::seconds(3)));
  EXPECT_GE(secondsBetween(start, log.runs[0].second), 0.28);
}

TEST(ThrottlerTest, WorkStillRunsWhenTheThrottlerIsGone) {
  auto queue = DispatchQueue::makeSerial("com.quorvi.test.gone");
  RunLog log;
  {
    auto throttler = Throttler::make(DelayPolicy::always, queue, 0.1);
    throttler->throttle([&] { log.add(1); });
  }
  EXPECT_TRUE(log.waitFor(1, std::chrono::seconds(3)));
}

// Each throttle cancels the pending run: a burst leaves one armed timer.
TEST(ThrottlerTest, BurstKeepsOneArmedTimer) {
  auto queue = DispatchQueue::makeSerial("com.quorvi.test.throttler.timers");
  auto throttler = Throttler::make(DelayPolicy::always, queue, 3600.0);
  const std::size_t armedBefore = DispatchQueue::armedTimerCount();
  for (int i = 0; i < 1000; ++i) throttler->throttle([] {});
  auto deadline = Clock::now() + std::chrono::seconds(5);
  while (DispatchQueue::armedTimerCount() > armedBefore + 1 && Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  // (Timers of earlier tests may expire meanwhile: at most, not exactly.)
  EXPECT_LE(DispatchQueue::armedTimerCount(), armedBefore + 1);
}

}  // namespace
}  // namespace quorvi

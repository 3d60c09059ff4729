// Throttler coalesces bursts of work: each call cancels the pending work and
// schedules the new one. With DelayPolicy::default_ the first call after a
// quiet period (longer than the minimum delay) runs at once and any call
// inside the interval waits the whole minimum delay (never the remainder);
// with DelayPolicy::always every call waits the minimum delay.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

#include "common/dispatch.h"

namespace quorvi {

enum class DelayPolicy { default_, always };

class Throttler : public std::enable_shared_from_this<Throttler> {
 public:
  using Clock = std::chrono::steady_clock;

  static std::shared_ptr<Throttler> make(DelayPolicy policy, std::shared_ptr<DispatchQueue> queue,
                                         double minimumDelaySeconds);

  void throttle(std::function<void()> work);

 private:
  Throttler(DelayPolicy policy, std::shared_ptr<DispatchQueue> queue, double minimumDelay);

  std::mutex mutex_;  // guards workItem and previousRun between queues
  DelayPolicy delayPolicy;
  WorkItemRef workItem;
  Clock::time_point previousRun;
  std::shared_ptr<DispatchQueue> queue;
  double minimumDelay;
};

}  // namespace quorvi

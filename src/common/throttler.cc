#include "common/throttler.h"

namespace quorvi {

std::shared_ptr<Throttler> Throttler::make(DelayPolicy policy, std::shared_ptr<DispatchQueue> queue,
                                           double minimumDelaySeconds) {
  return std::shared_ptr<Throttler>(new Throttler(policy, std::move(queue), minimumDelaySeconds));
}

Throttler::Throttler(DelayPolicy policy, std::shared_ptr<DispatchQueue> queue, double minimumDelay)
    : delayPolicy(policy),
      workItem(std::make_shared<WorkItem>()),
      previousRun(Clock::time_point::min()),
      queue(std::move(queue)),
      minimumDelay(minimumDelay) {}

void Throttler::throttle(std::function<void()> work) {
  std::weak_ptr<Throttler> weakSelf = weak_from_this();
  auto item = std::make_shared<WorkItem>([weakSelf, work = std::move(work)] {
    if (auto self = weakSelf.lock()) {
      std::lock_guard lock(self->mutex_);
      self->previousRun = Clock::now();
    }
    work();  // runs even when the throttler is already gone
  });

  double delay;
  {
    std::lock_guard lock(mutex_);
    workItem->cancel();
    workItem = item;
    if (delayPolicy == DelayPolicy::always) {
      delay = minimumDelay;
    } else if (previousRun == Clock::time_point::min()) {
      delay = 0;  // never ran: the distant past is longer ago than any delay
    } else {
      double elapsed = std::chrono::duration<double>(Clock::now() - previousRun).count();
      delay = minimumDelay < elapsed ? 0 : minimumDelay;
    }
  }
  queue->asyncAfter(DispatchQueue::Seconds(delay), item);
}

}  // namespace quorvi

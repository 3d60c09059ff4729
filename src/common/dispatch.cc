#include "common/dispatch.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

namespace quorvi {

namespace {

std::size_t poolSize() {
  // Several requests may block on tools (ps, lsof, a task) at once; keep a few
  // threads beyond the core count so that quick work still finds a thread.
  return std::max<std::size_t>(6, 2 * std::thread::hardware_concurrency());
}

// Process-wide executors; never destroyed, so that work still running at exit
// never meets a destroyed pool.
asio::thread_pool& pool() {
  static auto* p = new asio::thread_pool(poolSize());
  return *p;
}

// Background work may use every core while the machine is idle, but its
// threads run at nice 10: the scheduler then gives a request thread about ten
// times the share of a background one, so a walk never slows a search much.
constexpr int kBackgroundNice = 10;

std::size_t backgroundPoolSize() { return std::max<std::size_t>(2, std::thread::hardware_concurrency()); }

struct BackgroundPool {
  asio::io_context context{static_cast<int>(backgroundPoolSize())};
  asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
  BackgroundPool() {
    for (std::size_t i = 0; i < backgroundPoolSize(); ++i) {
      std::thread([this] {
        ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kBackgroundNice);
        context.run();
      }).detach();
    }
  }
};

BackgroundPool& backgroundPool() {
  static auto* p = new BackgroundPool();
  return *p;
}

asio::any_io_executor poolExecutor(QualityOfService qos) {
  if (qos == QualityOfService::background) return backgroundPool().context.get_executor();
  return pool().get_executor();
}

bool runningInPool(QualityOfService qos) {
  if (qos == QualityOfService::background) return backgroundPool().context.get_executor().running_in_this_thread();
  return pool().get_executor().running_in_this_thread();
}

struct MainLoop {
  asio::io_context context;
  asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
  std::atomic<std::thread::id> runner{};
  // A stop that comes before runMain() (the bus may close at once) must
  // not be lost: it is remembered and ends the next runMain() at once.
  std::mutex mutex;
  bool running = false;
  bool stopPending = false;
};

// Delayed items still waiting for their time (DispatchQueue::armedTimerCount).
std::atomic<std::size_t> gArmedTimers{0};

MainLoop& mainLoop() {
  static auto* loop = new MainLoop();
  return *loop;
}

}  // namespace

WorkItem::WorkItem(std::function<void()> body) : body_(std::move(body)) {}

void WorkItem::perform() {
  if (isCancelled() || !body_) return;
  body_();
}

void WorkItem::cancel() {
  cancelled_.store(true, std::memory_order_release);
  std::function<void()> hook;
  {
    std::lock_guard lock(hookMutex_);
    hook.swap(cancelHook_);
  }
  if (hook) hook();
}

void WorkItem::setCancelHook(std::function<void()> hook) {
  {
    std::lock_guard lock(hookMutex_);
    if (!isCancelled()) {
      cancelHook_ = std::move(hook);
      return;
    }
  }
  hook();
}

void WorkItem::clearCancelHook() {
  std::lock_guard lock(hookMutex_);
  cancelHook_ = nullptr;
}

struct DispatchQueue::Impl {
  asio::any_io_executor executor;
  // Set for serial queues only: whether the calling thread runs the strand.
  std::function<bool()> runningInStrand;
};

DispatchQueue::DispatchQueue(std::string label, Kind kind, QualityOfService qos, std::unique_ptr<Impl> impl)
    : label_(std::move(label)), kind_(kind), qos_(qos), impl_(std::move(impl)) {}

DispatchQueue::~DispatchQueue() = default;

DispatchQueue& DispatchQueue::main() {
  static auto* queue = [] {
    auto impl = std::make_unique<Impl>();
    impl->executor = mainLoop().context.get_executor();
    return new DispatchQueue("com.apple.main-thread", Kind::main, QualityOfService::userInitiated, std::move(impl));
  }();
  return *queue;
}

DispatchQueue& DispatchQueue::global() {
  static auto* queue = [] {
    auto impl = std::make_unique<Impl>();
    impl->executor = pool().get_executor();
    return new DispatchQueue("com.quorvi.global.userInitiated", Kind::concurrent, QualityOfService::userInitiated,
                             std::move(impl));
  }();
  return *queue;
}

DispatchQueue& DispatchQueue::background() {
  static auto* queue = [] {
    auto impl = std::make_unique<Impl>();
    impl->executor = poolExecutor(QualityOfService::background);
    return new DispatchQueue("com.quorvi.global.background", Kind::concurrent, QualityOfService::background,
                             std::move(impl));
  }();
  return *queue;
}

std::shared_ptr<DispatchQueue> DispatchQueue::makeSerial(std::string label, QualityOfService qos) {
  auto impl = std::make_unique<Impl>();
  auto strand = asio::make_strand(poolExecutor(qos));
  impl->executor = strand;
  impl->runningInStrand = [strand] { return strand.running_in_this_thread(); };
  return std::shared_ptr<DispatchQueue>(new DispatchQueue(std::move(label), Kind::serial, qos, std::move(impl)));
}

std::shared_ptr<DispatchQueue> DispatchQueue::makeConcurrent(std::string label, QualityOfService qos) {
  auto impl = std::make_unique<Impl>();
  impl->executor = poolExecutor(qos);
  return std::shared_ptr<DispatchQueue>(new DispatchQueue(std::move(label), Kind::concurrent, qos, std::move(impl)));
}

void DispatchQueue::runMain() {
  auto& loop = mainLoop();
  {
    std::lock_guard lock(loop.mutex);
    if (loop.stopPending) {
      loop.stopPending = false;
      return;
    }
    loop.running = true;
    loop.context.restart();
  }
  loop.runner = std::this_thread::get_id();
  loop.context.run();
  loop.runner = std::thread::id{};
  std::lock_guard lock(loop.mutex);
  loop.running = false;
}

void DispatchQueue::stopMain() {
  auto& loop = mainLoop();
  std::lock_guard lock(loop.mutex);
  if (loop.running) {
    loop.context.stop();
  } else {
    loop.stopPending = true;
  }
}

std::size_t DispatchQueue::globalThreadCount() { return poolSize(); }

std::size_t DispatchQueue::armedTimerCount() { return gArmedTimers.load(std::memory_order_relaxed); }

std::size_t DispatchQueue::threadCount(QualityOfService qos) {
  return qos == QualityOfService::background ? backgroundPoolSize() : poolSize();
}

void DispatchQueue::async(std::function<void()> work) { asio::post(impl_->executor, std::move(work)); }

void DispatchQueue::async(WorkItemRef item) {
  asio::post(impl_->executor, [item = std::move(item)] { item->perform(); });
}

void DispatchQueue::asyncAfter(Seconds delay, WorkItemRef item) {
  if (delay <= Seconds::zero()) {
    async(std::move(item));
    return;
  }
  // The timer lives on a serial executor (the queue itself, or a strand over
  // the pool for a concurrent queue) so that a cancel, posted there, never
  // races the timer's own completion.
  asio::any_io_executor executor =
      kind_ == Kind::concurrent ? asio::any_io_executor(asio::make_strand(impl_->executor)) : impl_->executor;
  auto timer = std::make_shared<asio::steady_timer>(executor,
                                                     std::chrono::duration_cast<asio::steady_timer::duration>(delay));
  gArmedTimers.fetch_add(1, std::memory_order_relaxed);
  timer->async_wait([timer, item](const std::error_code& error) {
    gArmedTimers.fetch_sub(1, std::memory_order_relaxed);
    item->clearCancelHook();
    if (!error) item->perform();
  });
  // Cancelling the item disarms the timer: its completion then runs at once
  // (as aborted) and releases the item and its body, instead of holding them
  // until the delay would have passed.
  std::weak_ptr<asio::steady_timer> weakTimer = timer;
  item->setCancelHook([weakTimer, executor] {
    asio::post(executor, [weakTimer] {
      if (auto timer = weakTimer.lock()) timer->cancel();
    });
  });
}

WorkItemRef DispatchQueue::asyncAfter(Seconds delay, std::function<void()> work) {
  auto item = std::make_shared<WorkItem>(std::move(work));
  asyncAfter(delay, item);
  return item;
}

bool DispatchQueue::isCurrent() const {
  switch (kind_) {
    case Kind::main:
      return mainLoop().runner.load() == std::this_thread::get_id();
    case Kind::serial:
      return impl_->runningInStrand();
    case Kind::concurrent:
      return runningInPool(qos_);
  }
  return false;
}

void DispatchQueue::sync(const std::function<void()>& work) {
  if (isCurrent()) {
    work();
    return;
  }
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  asio::post(impl_->executor, [&] {
    work();
    std::lock_guard lock(mutex);
    finished = true;
    done.notify_one();
  });
  std::unique_lock lock(mutex);
  done.wait(lock, [&] { return finished; });
}

void DispatchGroup::enter() {
  std::lock_guard lock(mutex_);
  ++count_;
}

void DispatchGroup::leave() {
  std::vector<std::pair<DispatchQueue*, std::function<void()>>> ready;
  {
    std::lock_guard lock(mutex_);
    if (count_ > 0) --count_;
    if (count_ != 0) return;
    ready.swap(notifications_);
    // Under the lock: a waiter may destroy the group as soon as it sees 0.
    zero_.notify_all();
  }
  for (auto& [queue, work] : ready) queue->async(std::move(work));
}

bool DispatchGroup::wait(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  if (timeout == std::chrono::milliseconds::max()) {
    zero_.wait(lock, [&] { return count_ == 0; });
    return true;
  }
  return zero_.wait_for(lock, timeout, [&] { return count_ == 0; });
}

void DispatchGroup::notify(DispatchQueue& queue, std::function<void()> work) {
  {
    std::lock_guard lock(mutex_);
    if (count_ != 0) {
      notifications_.emplace_back(&queue, std::move(work));
      return;
    }
  }
  queue.async(std::move(work));
}

void DispatchGroup::async(DispatchQueue& queue, std::function<void()> work) {
  enter();
  queue.async([this, work = std::move(work)] {
    work();
    leave();
  });
}

void concurrentPerform(std::size_t iterations, const std::function<void(std::size_t)>& body, QualityOfService qos) {
  if (iterations == 0) return;
  struct Shared {
    std::atomic<std::size_t> next{0};
    std::mutex mutex;
    std::condition_variable idle;
    std::size_t activeHelpers = 0;
    bool closed = false;  // set once the caller has drained; late helpers do nothing
    const std::function<void(std::size_t)>* body = nullptr;
    std::size_t iterations = 0;
    void drain() {
      for (std::size_t i; (i = next.fetch_add(1)) < iterations;) (*body)(i);
    }
  };
  auto shared = std::make_shared<Shared>();
  shared->body = &body;
  shared->iterations = iterations;
  // Helpers pull indices beside the caller. A helper that starts only after the
  // caller finished (the pool was busy) returns at once, so calling this from a
  // pool thread never deadlocks.
  const std::size_t helpers = std::min(iterations, DispatchQueue::threadCount(qos)) - 1;
  const asio::any_io_executor executor = poolExecutor(qos);
  for (std::size_t h = 0; h < helpers; ++h) {
    asio::post(executor, [shared] {
      {
        std::lock_guard lock(shared->mutex);
        if (shared->closed) return;
        ++shared->activeHelpers;
      }
      shared->drain();
      std::lock_guard lock(shared->mutex);
      if (--shared->activeHelpers == 0) shared->idle.notify_all();
    });
  }
  shared->drain();
  std::unique_lock lock(shared->mutex);
  shared->closed = true;
  shared->idle.wait(lock, [&] { return shared->activeHelpers == 0; });
}

}  // namespace quorvi

// The dispatch layer: labelled serial queues, two concurrent pools, a main
// queue served by the main thread, delayed cancellable work items, groups and
// a parallel-for. Everything runs on Asio executors.
//
// Where work runs, and why:
//  - userInitiated (DispatchQueue::global()): the pool that serves requests.
//    Searches, listings and replies run here; nothing long-running or waiting
//    for more work may sit on these threads, so a request always finds one.
//  - background (DispatchQueue::background()): scans, walks, sweeps, file-event
//    upkeep, content extraction, Zotero reads. Its own threads, at a lower
//    scheduling priority (nice 10), so a walk that takes every background
//    thread still leaves the request threads and the cores' first claim to
//    requests. Serial queues made with QualityOfService::background (the file
//    index's "com.quorvi.fsevent" and "com.quorvi.fsevent.operation") run on
//    this pool.
//  - main (DispatchQueue::main()): scope changes of the file index, the app
//    scan's start, cache expiry timers; short work only.
//  - the bus thread (service/) answers quick members from memory and never
//    runs work from here.
//
// Rules of use:
//  - work posted to one serial queue runs one item at a time, in order;
//  - the main queue runs only while some thread calls DispatchQueue::runMain();
//  - sync() on the queue you are already running on runs the work inline;
//  - work that must wait for a shared resource is queued behind it (a serial
//    queue), never parked on a pool thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quorvi {

// A unit of work that can be cancelled until it starts.
class WorkItem {
 public:
  explicit WorkItem(std::function<void()> body = {});
  void cancel() { cancelled_.store(true, std::memory_order_release); }
  bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }
  // Runs the body unless the item was cancelled before.
  void perform();

 private:
  std::atomic<bool> cancelled_{false};
  std::function<void()> body_;
};
using WorkItemRef = std::shared_ptr<WorkItem>;

// Which pool a queue's work runs on (see the header comment).
enum class QualityOfService { userInitiated, background };

class DispatchQueue {
 public:
  enum class Kind { serial, concurrent, main };
  using Seconds = std::chrono::duration<double>;

  // The main queue: work runs on the thread that calls runMain().
  static DispatchQueue& main();
  // The global concurrent queue of quality of service "userInitiated".
  static DispatchQueue& global();
  // The global concurrent queue of quality of service "background".
  static DispatchQueue& background();
  static std::shared_ptr<DispatchQueue> makeSerial(
      std::string label, QualityOfService qos = QualityOfService::userInitiated);
  static std::shared_ptr<DispatchQueue> makeConcurrent(
      std::string label, QualityOfService qos = QualityOfService::userInitiated);

  // Serves the main queue on the calling thread until stopMain().
  static void runMain();
  static void stopMain();
  // Number of threads in the global (userInitiated) pool.
  static std::size_t globalThreadCount();
  // Number of threads in the pool of the given quality of service.
  static std::size_t threadCount(QualityOfService qos);

  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  const std::string& label() const { return label_; }
  Kind kind() const { return kind_; }
  QualityOfService qualityOfService() const { return qos_; }

  void async(std::function<void()> work);
  void async(WorkItemRef item);
  // Runs the item on this queue once the delay has passed, unless cancelled.
  void asyncAfter(Seconds delay, WorkItemRef item);
  WorkItemRef asyncAfter(Seconds delay, std::function<void()> work);
  // Runs the work on this queue and waits for it.
  void sync(const std::function<void()>& work);
  // True when the calling thread is running work of this queue.
  bool isCurrent() const;

 private:
  struct Impl;
  DispatchQueue(std::string label, Kind kind, QualityOfService qos, std::unique_ptr<Impl> impl);
  std::string label_;
  Kind kind_;
  QualityOfService qos_;
  std::unique_ptr<Impl> impl_;
};

// Counts outstanding work; waiters and notifications run when it drops to 0.
class DispatchGroup {
 public:
  void enter();
  void leave();
  // Waits until the count is 0; false when the timeout passed first.
  bool wait(std::chrono::milliseconds timeout = std::chrono::milliseconds::max());
  // Runs work on the queue once the count is 0 (at once if it already is).
  void notify(DispatchQueue& queue, std::function<void()> work);
  // Runs work on the queue inside enter()/leave().
  void async(DispatchQueue& queue, std::function<void()> work);

 private:
  std::mutex mutex_;
  std::condition_variable zero_;
  long count_ = 0;
  std::vector<std::pair<DispatchQueue*, std::function<void()>>> notifications_;
};

// Calls body(i) for i in [0, iterations) on the pool of the given quality of
// service and the calling thread, and returns when every call has returned.
// Helpers that start after the work ran out return at once, so a helper never
// waits on a pool thread.
void concurrentPerform(std::size_t iterations, const std::function<void(std::size_t)>& body,
                       QualityOfService qos = QualityOfService::userInitiated);

}  // namespace quorvi

// The dispatch layer: labelled serial queues, two concurrent pools, a main
// queue served by the main thread, delayed cancellable work items, groups and
// a parallel-for. Everything runs on Asio executors.
//
// Where work runs, and why. The rule behind every line: a request never waits
// behind work that is not its own, and no thread sleeps holding a place that
// another request needs.
//
//  - The bus thread (service/bus_server) owns the connection. It answers the
//    quick members from memory (ready flags, descriptions, previews, #12 on an
//    empty index) and hands everything else on; it never runs work from here
//    and never waits for a lock that long work holds.
//  - userInitiated (DispatchQueue::global(), "com.quorvi.global.userInitiated"):
//    the request pool, 2 x cores threads (at least 6). Searches, directory
//    listings, process listings, the launch of named tasks, reply encoding.
//    Work here belongs to one request and ends with its reply; nothing that
//    waits for more work or for a shared resource sits on these threads.
//  - background (DispatchQueue::background(), "com.quorvi.global.background"):
//    one thread per core, at nice 10, so the scheduler gives a request thread
//    about ten times the share of a background one and a walk that takes every
//    background thread still leaves the cores' first claim to requests. Scans,
//    walks, sweeps, file-event upkeep, content extraction, one-time table
//    set-ups and the Zotero reads run here, on the pool itself or on serial
//    queues made with QualityOfService::background:
//      "com.quorvi.fsevents"           the file-events service: events, watches,
//                                      sweeps, its journal (its inotify reader
//                                      is a thread of its own that only waits
//                                      for events)
//      "com.quorvi.fsevent"            the file index's record mutations
//      "com.quorvi.fsevent.operation"  the file index's change operations
//      "com.quorvi.fsappevent", "com.quorvi.fsappevent.operation"
//                                      the app index's events and list edits
//      "com.quorvi.contentindex"       the content index's extraction passes
//      "com.quorvi.zotero"             Zotero reads, one at a time
//    concurrentPerform(..., QualityOfService::background) splits such work
//    over the background pool.
//  - main (DispatchQueue::main(), "com.apple.main-thread"): scope changes of
//    the file index (they only queue work on "com.quorvi.fsevent"), the app
//    scan's start, cache expiry timers. Short work only.
//  - A named task with a reply waits for its process on a thread of its own,
//    never on a pool thread.
//
// Waiting for a shared resource: a request that needs something another
// request is using (the Zotero working copy, an index under construction) is
// queued behind it on the resource's serial queue, and the work that finally
// runs there sends the reply. Nothing parks a pool thread on a lock.
//
// Rules of use:
//  - work posted to one serial queue runs one item at a time, in order;
//  - the main queue runs only while some thread calls DispatchQueue::runMain();
//  - sync() on the queue you are already running on runs the work inline;
//    sync() from a pool thread onto a busy queue is the one way to break the
//    rule above, so the service never does it (tools and tests may);
//  - a delayed work item that is cancelled before it runs releases its timer
//    at once: cancel-and-reschedule (throttlers, cache expiry) keeps one armed
//    timer, not one per call.
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
  // Marks the item cancelled; when it waits for a delay, its timer is
  // disarmed too (the item and its body are released soon after).
  void cancel();
  bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }
  // Runs the body unless the item was cancelled before.
  void perform();

 private:
  friend class DispatchQueue;
  // Called once on cancel() (at once when already cancelled).
  void setCancelHook(std::function<void()> hook);
  void clearCancelHook();

  std::atomic<bool> cancelled_{false};
  std::function<void()> body_;
  std::mutex hookMutex_;
  std::function<void()> cancelHook_;
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
  // Delayed items whose timer is still armed, process-wide (diagnostics).
  static std::size_t armedTimerCount();

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

// InotifyReader: the one thread that reads the inotify descriptor. It does
// nothing else: each read's events become a batch handed to `deliver`, so the
// kernel's queue is drained as fast as events come.
//
// When the receiver falls behind by more than `maxPendingEvents`, the thread
// stops reading until it catches up: the kernel's queue then overflows, which
// the receiver repairs with a sweep, so a flood of events never exhausts the
// service's memory.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quorvi {

struct RawEvent {
  int wd = -1;
  uint32_t mask = 0;
  uint32_t cookie = 0;
  std::string name;
};
using RawBatch = std::vector<RawEvent>;

class InotifyReader {
 public:
  InotifyReader(int inotifyFd, std::function<void(RawBatch)> deliver, std::size_t maxPendingEvents);
  ~InotifyReader();  // stops the thread
  InotifyReader(const InotifyReader&) = delete;
  InotifyReader& operator=(const InotifyReader&) = delete;

  // The receiver has handled `count` delivered events.
  void handled(std::size_t count);
  // Reads whatever the kernel holds now and delivers it before returning.
  void flush();

 private:
  void run();
  std::size_t readAvailable(RawBatch& batch);
  void wake();

  int fd_;
  int wakeFd_;
  std::function<void(RawBatch)> deliver_;
  std::size_t maxPending_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t pending_ = 0;
  uint64_t flushRequested_ = 0;
  uint64_t flushDone_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace quorvi

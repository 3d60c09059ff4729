#include "fsevents/inotify_reader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quorvi {

InotifyReader::InotifyReader(int inotifyFd, std::function<void(RawBatch)> deliver, std::size_t maxPendingEvents)
    : fd_(inotifyFd),
      wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      deliver_(std::move(deliver)),
      maxPending_(maxPendingEvents),
      thread_([this] { run(); }) {}

InotifyReader::~InotifyReader() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  wake();
  thread_.join();
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

void InotifyReader::wake() {
  uint64_t one = 1;
  if (wakeFd_ >= 0) (void)!::write(wakeFd_, &one, sizeof one);
}

void InotifyReader::handled(std::size_t count) {
  {
    std::lock_guard lock(mutex_);
    pending_ = count > pending_ ? 0 : pending_ - count;
  }
  changed_.notify_all();
}

void InotifyReader::flush() {
  std::unique_lock lock(mutex_);
  const uint64_t ticket = ++flushRequested_;
  lock.unlock();
  wake();
  lock.lock();
  changed_.wait(lock, [&] { return flushDone_ >= ticket || stopping_; });
}

std::size_t InotifyReader::readAvailable(RawBatch& batch) {
  alignas(struct inotify_event) char buffer[64 * 1024];
  std::size_t events = 0;
  for (;;) {
    ssize_t length = ::read(fd_, buffer, sizeof buffer);
    if (length <= 0) break;  // EAGAIN: drained
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      RawEvent raw;
      raw.wd = event->wd;
      raw.mask = event->mask;
      raw.cookie = event->cookie;
      if (event->len > 0) raw.name.assign(event->name, ::strnlen(event->name, event->len));
      batch.push_back(std::move(raw));
      ++events;
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    if (static_cast<std::size_t>(length) < sizeof buffer / 2) break;  // likely drained; poll again
  }
  return events;
}

void InotifyReader::run() {
  for (;;) {
    uint64_t flushTicket;
    {
      std::unique_lock lock(mutex_);
      // Back-pressure: while the receiver is far behind, leave events in the
      // kernel (an overflow there is repaired by a sweep).
      changed_.wait(lock, [&] { return stopping_ || pending_ < maxPending_ || flushRequested_ > flushDone_; });
      if (stopping_) return;
      flushTicket = flushRequested_;
    }
    if (flushTicket == flushDone_) {
      pollfd fds[2] = {{fd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
      int ready = ::poll(fds, 2, -1);
      if (ready < 0 && errno != EINTR) return;
      if (fds[1].revents & POLLIN) {
        uint64_t drained;
        (void)!::read(wakeFd_, &drained, sizeof drained);
      }
    }
    RawBatch batch;
    std::size_t count = readAvailable(batch);
    if (count) {
      {
        std::lock_guard lock(mutex_);
        pending_ += count;
      }
      deliver_(std::move(batch));
    }
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      flushDone_ = std::max(flushDone_, flushTicket);
    }
    changed_.notify_all();
  }
}

}  // namespace quorvi

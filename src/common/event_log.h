// The process-wide file-event log: text lines kept under a lock, exported on
// request. Bounded, so that a flood of events cannot exhaust memory: past the
// capacity the oldest lines are dropped.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "common/unfair_lock.h"

namespace quorvi {

class EventLog {
 public:
  static constexpr std::size_t kCapacity = 20000;
  static EventLog& shared();

  void append(std::string line);
  std::vector<std::string> lines() const;
  // The lines joined by "\n", as UTF-8.
  std::string joined() const;
  // Writes joined() to the destination (a "file://" URL or an absolute path)
  // atomically. Returns false when it could not; callers ignore that.
  bool exportTo(const std::string& destination) const;
  void clear();

 private:
  mutable UnfairLock unfairlock;
  std::deque<std::string> lines_;
};

}  // namespace quorvi

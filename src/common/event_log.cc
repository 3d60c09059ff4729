#include "common/event_log.h"

#include <mutex>

#include "platform/atomic_file.h"
#include "platform/paths.h"

namespace quorvi {

EventLog& EventLog::shared() {
  static auto* log = new EventLog();
  return *log;
}

void EventLog::append(std::string line) {
  std::lock_guard guard(unfairlock);
  if (lines_.size() >= kCapacity) lines_.pop_front();
  lines_.push_back(std::move(line));
}

std::vector<std::string> EventLog::lines() const {
  std::lock_guard guard(unfairlock);
  return {lines_.begin(), lines_.end()};
}

std::string EventLog::joined() const {
  std::string out;
  bool first = true;
  for (const auto& line : lines()) {
    if (!first) out += '\n';
    out += line;
    first = false;
  }
  return out;
}

bool EventLog::exportTo(const std::string& destination) const {
  auto path = pathFromFileURL(destination);
  if (!path) return false;
  return writeFileAtomically(*path, joined());
}

void EventLog::clear() {
  std::lock_guard guard(unfairlock);
  lines_.clear();
}

}  // namespace quorvi

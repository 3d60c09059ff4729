#include "common/notification_center.h"

#include <mutex>

namespace quorvi {

NotificationCenter& NotificationCenter::shared() {
  static auto* center = new NotificationCenter();
  return *center;
}

uint64_t NotificationCenter::addObserver(const std::string& name, Observer observer) {
  std::lock_guard guard(unfairlock);
  uint64_t token = nextToken_++;
  entries_.push_back({token, name, std::move(observer)});
  return token;
}

void NotificationCenter::removeObserver(uint64_t token) {
  std::lock_guard guard(unfairlock);
  std::erase_if(entries_, [&](const Entry& entry) { return entry.token == token; });
}

void NotificationCenter::post(const std::string& name) {
  std::vector<Observer> matching;
  {
    std::lock_guard guard(unfairlock);
    for (const auto& entry : entries_) {
      if (entry.name == name) matching.push_back(entry.observer);
    }
  }
  // Observers run outside the lock so that they may post or observe in turn.
  for (const auto& observer : matching) observer(name);
}

}  // namespace quorvi

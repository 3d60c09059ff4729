// Process-wide notifications by name. Components post; observers run on the
// posting thread, so they must be quick. The bus transport observes the
// broadcast names ("com.quorvi.fileIndexStateDidChange",
// "com.quorvi.appIndexerStateDidChange") and turns each post into a signal;
// other names ("com.quorvi.app.index.didUpdate") stay inside the process.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "common/unfair_lock.h"

namespace quorvi {

inline constexpr const char* kFileIndexStateDidChange = "com.quorvi.fileIndexStateDidChange";
inline constexpr const char* kAppIndexerStateDidChange = "com.quorvi.appIndexerStateDidChange";
inline constexpr const char* kAppIndexDidUpdate = "com.quorvi.app.index.didUpdate";

class NotificationCenter {
 public:
  using Observer = std::function<void(const std::string& name)>;
  static NotificationCenter& shared();

  // Returns a token for removeObserver.
  uint64_t addObserver(const std::string& name, Observer observer);
  void removeObserver(uint64_t token);
  void post(const std::string& name);

 private:
  struct Entry {
    uint64_t token;
    std::string name;
    Observer observer;
  };
  UnfairLock unfairlock;
  uint64_t nextToken_ = 1;
  std::vector<Entry> entries_;
};

}  // namespace quorvi

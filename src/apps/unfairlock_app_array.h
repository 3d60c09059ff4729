// UnfairlockAppArray: the app index's entries under their lock. Readers get
// an immutable snapshot (the entries and their JSON reply bytes, encoded once
// when the list changes), so a request copies a pointer, not the list, and
// never encodes. Writers build the next list outside the lock and swap it in.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "apps/app_entry.h"
#include "common/json.h"
#include "common/unfair_lock.h"

namespace quorvi {

struct AppList {
  std::vector<AppEntry> entries;
  OptionalBytes json;  // the JSON array of the entries; nothing if it could not be written
};
using AppListRef = std::shared_ptr<const AppList>;

class UnfairlockAppArray {
 public:
  UnfairlockAppArray() : array(std::make_shared<const AppList>(AppList{{}, encodeAppEntries({})})) {}

  AppListRef snapshot() const {
    std::lock_guard guard(unfairlock);
    return array;
  }
  std::vector<AppEntry> copy() const { return snapshot()->entries; }
  // Encodes the entries, then swaps them in; answers the new list.
  AppListRef replace(std::vector<AppEntry> entries) {
    OptionalBytes json = encodeAppEntries(entries);
    auto next = std::make_shared<const AppList>(AppList{std::move(entries), std::move(json)});
    std::lock_guard guard(unfairlock);
    array = next;
    return next;
  }

 private:
  mutable UnfairLock unfairlock;
  AppListRef array;
};

}  // namespace quorvi

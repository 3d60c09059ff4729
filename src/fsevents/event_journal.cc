#include "fsevents/event_journal.h"

#include <algorithm>
#include <charconv>

#include "platform/atomic_file.h"
#include "platform/paths.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

constexpr FileEventID kReservationBlock = 1u << 20;

}  // namespace

EventJournal::EventJournal(std::string idFile, std::size_t capacityBytes)
    : idFile_(std::move(idFile)), capacityBytes_(capacityBytes) {
  FileEventID stored = 0;
  if (!idFile_.empty()) {
    if (auto text = readRegularFile(idFile_, 64)) {
      auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), stored);
      if (error != std::errc()) stored = 0;
    }
  }
  // A stored bound near the top would overflow; start again from 1 then
  // (every watcher sees "history incomplete" after a restart anyway).
  if (stored > UINT64_MAX / 2) stored = 0;
  startID_ = stored;
  current_ = stored;
  reserved_ = stored;
  reserve();
  droppedThrough_ = startID_;
}

void EventJournal::reserve() {
  reserved_ += kReservationBlock;
  if (idFile_.empty()) return;
  makeParentDirectories(idFile_);
  writeFileAtomically(idFile_, std::to_string(reserved_) + "\n");  // a failure only costs continuity
}

FileEventID EventJournal::next() {
  FileEventID id = current_.load(std::memory_order_relaxed) + 1;
  if (id > reserved_) reserve();
  current_.store(id, std::memory_order_release);
  return id;
}

std::size_t EventJournal::sizeOf(const FileEvent& event) {
  return sizeof(Entry) + 16 + event.path.size() + event.movedFrom.size();
}

void EventJournal::record(const FileEvent& event, uint16_t watchers) {
  if (watchers == 0) return;
  entries_.push_back({event, watchers});
  bytes_ += sizeOf(event);
  while (bytes_ > capacityBytes_ && !entries_.empty()) {
    bytes_ -= sizeOf(entries_.front().event);
    droppedThrough_ = entries_.front().event.id;
    entries_.pop_front();
  }
}

bool EventJournal::reachesBackTo(FileEventID since) const { return since >= startID_ && since >= droppedThrough_; }

bool EventJournal::replay(FileEventID since, uint16_t watcherBit, std::vector<FileEvent>& events) const {
  if (!reachesBackTo(since)) return false;
  // Entries are in id order: skip to the first after `since`.
  auto first = std::upper_bound(entries_.begin(), entries_.end(), since,
                                [](FileEventID id, const Entry& entry) { return id < entry.event.id; });
  for (auto it = first; it != entries_.end(); ++it) {
    if (it->watchers & watcherBit) events.push_back(it->event);
  }
  return true;
}

}  // namespace quorvi

// EventJournal: the event ids and the events given out lately.
//
// Ids increase across restarts: the journal keeps, in a small file in the
// service's state folder, an upper bound of the ids given out, reserved a
// block at a time so that the file is written once per million events, not
// once per event. A restart continues after the bound.
//
// The events themselves are kept in memory, up to a number of bytes, so that
// a watcher stopped and started again with a "since when" id can be told
// what happened meanwhile. The journal can tell everything after an id only
// when that id was given out by this process and no event after it has been
// dropped to make room.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "fsevents/file_events.h"

namespace quorvi {

class EventJournal {
 public:
  // idFile: where the reserved bound lives (empty: ids restart at 1 and
  // nothing is written).
  EventJournal(std::string idFile, std::size_t capacityBytes);

  // The id current when the process started: an id at or after it was given
  // out (or could have been) by this process.
  FileEventID startID() const { return startID_; }
  FileEventID current() const { return current_.load(std::memory_order_acquire); }
  // Gives out the next id.
  FileEventID next();

  // Keeps an event for replay; `watchers` is the bit set of watcher slots it
  // concerns. Drops the oldest events beyond the capacity.
  void record(const FileEvent& event, uint16_t watchers);
  // The events after `since` that concern the watcher bit, in id order.
  // False when the journal cannot tell them all.
  bool replay(FileEventID since, uint16_t watcherBit, std::vector<FileEvent>& events) const;
  // Whether everything after `since` is still here.
  bool reachesBackTo(FileEventID since) const;
  std::size_t bytesUsed() const { return bytes_; }

 private:
  struct Entry {
    FileEvent event;
    uint16_t watchers;
  };
  static std::size_t sizeOf(const FileEvent& event);
  void reserve();

  std::string idFile_;
  std::size_t capacityBytes_;
  FileEventID startID_ = 0;
  std::atomic<FileEventID> current_{0};
  FileEventID reserved_ = 0;
  FileEventID droppedThrough_ = 0;  // the newest id dropped to make room
  std::deque<Entry> entries_;
  std::size_t bytes_ = 0;
};

}  // namespace quorvi

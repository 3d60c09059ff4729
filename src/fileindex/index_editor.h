// IndexEditor: every change to the index's records after a run: items added
// or replaced, items and whole folders removed, folders moved, and walked
// subtrees merged in. A change is described by paths (what the disk holds
// now); the editor finds the records by path in the current index.
//
// Each change builds the new state beside the old one and swaps it in under
// the index's lock, so a search never waits for a change and never sees half
// of one. New and replaced records go into a small segment in front (they are
// the newest); removed ones are marked dead in their segment; a moved folder
// is one edit of the folder tree, whatever it holds. When much has been left
// behind (dead rows, many small segments, folders gone), the index is
// rebuilt into one table.
//
// Only one thread may edit at a time: the index's mutation queue.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "fileindex/scope_scan.h"
#include "fileindex/unfairlock_file_array.h"

namespace quorvi {

class IndexEditor {
 public:
  // An item as found on disk, to add or to replace what the index holds at
  // its path.
  struct Record {
    std::string path;
    ItemRow row;
  };
  // A walk below `folder`. With `replaces`, everything the index holds below
  // the folder gives way to it; without, only what the index lacks is added
  // (an added scope around or inside indexed ones).
  struct Walked {
    std::string folder;
    ScanResult scan;
    bool replaces = true;
  };
  struct Change {
    std::vector<std::pair<std::string, std::string>> movedFolders;  // from, to: the subtree follows
    std::vector<std::string> removed;     // items; a folder takes its subtree
    std::vector<std::string> unrecorded;  // items whose own record goes; a folder's contents stay
    std::vector<Walked> walked;
    std::vector<Record> upserted;
    bool empty() const {
      return movedFolders.empty() && removed.empty() && unrecorded.empty() && walked.empty() && upserted.empty();
    }
  };
  struct Outcome {
    std::size_t added = 0;
    std::size_t removed = 0;
    std::size_t moved = 0;
  };

  explicit IndexEditor(UnfairlockFileArray& index) : index_(index) {}

  Outcome apply(const Change& change);
  // Rebuilds the index into one table, newest first, when changes have left
  // much behind. Returns whether it did.
  bool compactIfWorthIt();
  // The same, unconditionally.
  void compact();

 private:
  UnfairlockFileArray& index_;
};

}  // namespace quorvi

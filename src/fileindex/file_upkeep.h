// FileUpkeep: keeps the file index true to the disk between runs.
//
// File events only say where to look. The upkeep notes the places they name
// (items, folders whose entries changed, subtrees to walk, folders moved)
// until its throttler lets it run, then looks at each place on disk and
// builds one index change from what is there now, by the scope rules. So
// duplicated, reordered or coalesced events, and events about items that
// came and went in between, all come to the same result: the index as a
// fresh walk would make it.
//
//  - an item named by an event is stat'ed: there and recorded by the rules,
//    its record is added or replaced; gone, or no longer recorded, its
//    record goes (a folder's with everything below it); an item in the trash
//    goes, as it does when a search meets it;
//  - a folder moved inside the scopes moves its records with it, unless the
//    rules tell the two places apart: then the old place goes and the new
//    one is walked;
//  - a folder that appeared is walked;
//  - a folder whose entries may have changed unseen is listed and compared
//    with the records of its entries;
//  - "everything" walks every scope again.
#pragma once

#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fileindex/index_editor.h"
#include "fileindex/scope_rules.h"
#include "fsevents/file_events.h"

namespace quorvi {

class FileUpkeep {
 public:
  // Notes what events name. Thread-safe.
  void note(const std::vector<FileEvent>& events);
  // Notes one item to look at again (a search found it replaced or gone).
  void noteItem(const std::string& path);
  void noteEverything();
  bool hasPending() const;
  void clear();

  // Takes what was noted and builds the change from the disk, against the
  // index as it is. Describes each decision as a line in `log`.
  IndexEditor::Change prepare(const ScopeRules& rules, const FileSegments& index, std::vector<std::string>& log);

 private:
  struct Pending {
    std::set<std::string> items;
    std::set<std::string> folders;   // entries to compare with the disk
    std::set<std::string> subtrees;  // to walk
    std::vector<std::pair<std::string, std::string>> moves;  // folders: from, to
    bool everything = false;
  };

  mutable std::mutex mutex_;
  Pending pending_;
};

}  // namespace quorvi

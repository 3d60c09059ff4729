// UnfairlockFileArray: the index itself, a lock-guarded ordered list of File
// records. It is an UnfairlockArray of immutable record tables (segments):
// a run publishes one segment, each added scope appends one, so that reading
// the whole index under the lock copies a handful of pointers, not a million
// records. Records are read in segment order, then table order.
#pragma once

#include <string>
#include <vector>

#include "common/unfair_lock.h"
#include "fileindex/file_table.h"

namespace quorvi {

using FileSegments = std::vector<FileTableRef>;

class UnfairlockFileArray : public UnfairlockArray<FileTableRef> {
 public:
  // Number of records (not segments).
  std::size_t count() const;
  // Removes, in place and keeping the order of the rest, every record whose
  // path begins with one of the prefixes (a plain string prefix: removing
  // "/a/b" also removes "/a/bc"). Returns the number removed.
  std::size_t removeByPrefixes(const std::vector<std::string>& prefixes);
  // Removes every record whose reference equals one of the given ones.
  std::size_t removeFiles(const std::vector<FileReference>& references);
};

// A copy of table without the records for which drop(i) is true; the table
// itself when none is dropped.
template <typename Drop>
FileTableRef tableWithout(const FileTableRef& table, Drop&& drop, std::size_t& dropped) {
  std::vector<uint32_t> kept;
  kept.reserve(table->size());
  for (std::size_t i = 0; i < table->size(); ++i) {
    if (!drop(i)) kept.push_back(static_cast<uint32_t>(i));
  }
  if (kept.size() == table->size()) return table;
  dropped += table->size() - kept.size();
  FileTable::Builder builder(table->sharedFolders());
  builder.reserve(kept.size(), table->arena().size());
  for (uint32_t i : kept) builder.appendFrom(*table, i);
  return builder.finish();
}

}  // namespace quorvi

// The private working copy of a Zotero database. Zotero keeps its database
// locked and writes to it while it runs, so the reader never opens the user's
// file: it copies it, with its rollback journal or write-ahead log, into a
// directory of its own and reads the copy.
#pragma once

#include <optional>
#include <string>

namespace quorvi {

// The service's own directory for working copies:
// $XDG_CACHE_HOME/quorvifind/zotero (or ~/.cache/quorvifind/zotero), created
// with mode 0700. Empty when it cannot be created.
std::string defaultZoteroWorkingDirectory();

// Replaces copyPath (and its "-journal", "-wal", "-shm" companions) by a copy
// of databasePath with the companions that exist beside it. When a journal or
// log came along, the copy is settled: SQLite rolls a hot journal back, or
// folds the log into the file, so that a read-only open sees the last committed
// state. Answers the failure text when a copy fails, nullopt on success.
std::optional<std::string> makeWorkingCopy(const std::string& databasePath, const std::string& copyPath);

}  // namespace quorvi

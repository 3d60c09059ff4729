// Reads a Zotero data folder's "zotero.sqlite" into ZoteroDatabase rows and
// maps, through a private working copy (see working_copy.h).
#pragma once

#include <optional>
#include <string>

#include "zotero/zotero_records.h"

namespace quorvi {

struct ZoteroReadResult {
  std::optional<ZoteroDatabase> database;  // set on success
  std::string failure;                     // the failure text otherwise
};

// folder: the Zotero data folder. workingDirectory: where the working copy
// "temp-zotero.sqlite" goes; empty when none could be had. Never throws.
// Failure texts: "Zotero Library Not Exist", "Zotero Library Database Not
// Exist", a copy error's description, "SQLite error: <code>". A statement that
// fails leaves its table empty and is not a failure.
ZoteroReadResult readZoteroDatabase(const std::string& folder, const std::string& workingDirectory);

// "yyyy-MM-dd HH:mm:ss" (UTC) as seconds since 1970; nullopt when malformed.
std::optional<double> parseZoteroDate(const char* text);

}  // namespace quorvi

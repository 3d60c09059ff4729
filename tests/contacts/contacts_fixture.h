// Address books for the contacts tests: vCard text and Evolution Data
// Server databases laid out as the data server writes them.
#pragma once

#include <sqlite3.h>

#include <string>
#include <vector>

namespace quorvi::contacts_fixture {

// One card of version 3.0 with the given name, numbers and addresses.
std::string vcard(const std::string& uid, const std::string& name, const std::vector<std::string>& phones,
                  const std::vector<std::string>& emails = {});

// An Evolution address book database: the "folders" table naming the
// summary table, and the summary table with each contact's uid and vCard.
// The connection stays open in write-ahead-log mode, so recent rows may
// live only in the "-wal" file beside the database, as while the data
// server runs.
class EvolutionBook {
 public:
  explicit EvolutionBook(const std::string& databasePath);
  ~EvolutionBook();
  void add(const std::string& uid, const std::string& vcardText);
  // Closes the connection (which folds the log into the database).
  void close();

 private:
  sqlite3* db_ = nullptr;
};

std::string readWholeFile(const std::string& path);

}  // namespace quorvi::contacts_fixture

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
// The connection stays open, as the data server keeps it. With a rollback
// journal (SQLite's default) every write makes and removes a "-journal"
// file beside the database; in write-ahead-log mode recent rows live only
// in the "-wal" file until the connection closes.
class EvolutionBook {
 public:
  enum class Journal { rollback, writeAheadLog };
  explicit EvolutionBook(const std::string& databasePath, Journal journal = Journal::rollback);
  ~EvolutionBook();
  void add(const std::string& uid, const std::string& vcardText);
  // Closes the connection (which folds the log into the database).
  void close();

 private:
  sqlite3* db_ = nullptr;
};

std::string readWholeFile(const std::string& path);

// Sets the modification time of the folder and every folder below it an
// hour back, so that address books written by a test before the index
// watches them do not count as changed while the watches were being set.
void backdateFolders(const std::string& root);

}  // namespace quorvi::contacts_fixture

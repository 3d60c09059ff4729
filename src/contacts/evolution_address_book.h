// The local address books of Evolution Data Server, GNOME's contact store.
// Each book is a folder under $XDG_DATA_HOME/evolution/addressbook ("system"
// is the personal one) holding an SQLite database, contacts.db, whose
// summary tables keep every contact's vCard text.
//
// The data server keeps the database open and writes to it while it runs,
// so the service never opens the user's file: it copies the database, with
// its rollback journal or write-ahead log, into a private folder (mode 0700),
// lets SQLite settle the copy, reads the copy read-only and deletes it (the
// copy holds personal data and is not kept). Files are opened through
// safe_file.h with a size cap.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace quorvi {

struct EvolutionAddressBook {
  std::string databasePath;  // .../addressbook/<book>/contacts.db
};

// The books under the folder (sorted by book name); none when it is absent.
std::vector<EvolutionAddressBook> findEvolutionAddressBooks(const std::string& addressBookFolder);

// The vCards of one book, in the database's order, or the failure text.
struct EvolutionReadResult {
  std::vector<std::string> vcards;
  std::optional<std::string> failure;
};
EvolutionReadResult readEvolutionAddressBook(const std::string& databasePath, const std::string& workingDirectory,
                                             std::size_t maxDatabaseBytes);

// $XDG_CACHE_HOME/quorvifind/contacts, created with mode 0700; empty when it
// cannot be created.
std::string defaultContactsWorkingDirectory();

}  // namespace quorvi

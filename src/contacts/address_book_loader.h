// AddressBookLoader: reads the user's address books into contact entries.
//
// Where address books are looked for:
//  - vCard folders: the folders (or .vcf files) listed under the settings key
//    "com.quorvi.contactsFolders", and $XDG_DATA_HOME/contacts. A folder is
//    walked to a few levels (vdirsyncer and khard keep one folder per
//    collection, one .vcf per contact); every ".vcf"/".vcard" file in it is
//    read, and may hold one card or many. Hidden entries are skipped and
//    symbolic links to folders are not followed below a listed folder.
//  - the local address books of Evolution Data Server under
//    $XDG_DATA_HOME/evolution/addressbook, read from private copies.
//
// Every file is opened through safe_file.h with a size cap; the counts of
// files and entries are capped too, so an odd folder cannot exhaust the
// service. Entries come in a stable order: sources in the order above,
// files by path, cards and their numbers and addresses as written.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "contacts/contact_item.h"

namespace quorvi {

struct AddressBookSources {
  std::vector<std::string> vcardPaths;      // folders or single files
  std::string evolutionAddressBookFolder;   // empty: none
  // The paths to watch for changes: the above, as they are (they may not
  // exist yet).
  std::vector<std::string> watchedPaths() const;

  // From the settings file and the XDG folders.
  static AddressBookSources standard();
};

struct AddressBookLimits {
  std::size_t maxVCardFileBytes = 128u << 20;  // a multi-contact export with photos
  std::size_t maxDatabaseBytes = 512u << 20;
  std::size_t maxFiles = 200000;
  std::size_t maxItems = 1000000;
  int maxFolderDepth = 6;
};

struct AddressBookLoad {
  std::vector<ContactItem> items;
  std::size_t filesRead = 0;
  std::size_t cardsRead = 0;
  std::size_t filesSkipped = 0;  // unreadable, too large, or beyond the caps
  double seconds = 0;
};

class AddressBookLoader {
 public:
  AddressBookLoader(AddressBookSources sources, AddressBookLimits limits = {}, std::string workingDirectory = {});
  // Reads everything; never fails as a whole (a source that cannot be read
  // is counted as skipped).
  AddressBookLoad load() const;

 private:
  void loadVCardFile(const std::string& path, AddressBookLoad& load) const;
  void walkFolder(const std::string& folder, int depth, std::vector<std::string>& files) const;
  void addCards(std::string_view text, const std::string& source, AddressBookLoad& load) const;

  AddressBookSources sources_;
  AddressBookLimits limits_;
  std::string workingDirectory_;
};

// The settings key that lists extra address-book folders.
inline constexpr const char* kContactsFoldersSettingsKey = "com.quorvi.contactsFolders";

}  // namespace quorvi

// Loading address books from real folders: vdirs, exports, Evolution's
// databases, and the odd things found on disks.
#include "contacts/address_book_loader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "contacts/contacts_fixture.h"
#include "contacts/evolution_address_book.h"
#include "support/test_bus.h"

namespace quorvi {
namespace {

using contacts_fixture::vcard;
namespace fs = std::filesystem;

std::vector<std::string> contactsOf(const AddressBookLoad& load) {
  std::vector<std::string> contacts;
  for (const auto& item : load.items) contacts.push_back(item.contact);
  return contacts;
}

TEST(AddressBookLoader, VdirCollectionsAndMultiContactFilesInPathOrder) {
  testing::TemporaryDirectory home;
  std::string books = home.path() + "/contacts";
  home.write("contacts/work/default/b.vcf", vcard("b", "Bea", {"2"}, {"bea@example.com"}));
  home.write("contacts/work/default/a.vcf", vcard("a", "Al", {"1"}));
  home.write("contacts/export.VCF", vcard("c", "Cy", {"3"}) + vcard("d", "Di", {"4"}));
  home.write("contacts/.git/hidden.vcf", vcard("h", "Hidden", {"9"}));
  home.write("contacts/work/default/notes.txt", vcard("n", "Not a vcf", {"8"}));
  home.write("single.vcf", vcard("s", "Single", {"5"}));

  AddressBookSources sources;
  sources.vcardPaths = {books, home.path() + "/single.vcf", home.path() + "/absent"};
  AddressBookLoad load = AddressBookLoader(sources).load();
  EXPECT_EQ(contactsOf(load), (std::vector<std::string>{"3", "4", "1", "2", "bea@example.com", "5"}));
  EXPECT_EQ(load.filesRead, 4u);
  EXPECT_EQ(load.cardsRead, 5u);
  EXPECT_EQ(load.filesSkipped, 0u);
}

TEST(AddressBookLoader, FifosHugeFilesLinksAndCapsDoNotHurt) {
  testing::TemporaryDirectory home;
  std::string books = home.path() + "/contacts";
  home.write("contacts/ok.vcf", vcard("ok", "Ok", {"1"}));
  home.write("contacts/big.vcf", vcard("big", "Big", {"2"}) + std::string(4096, '\n'));
  // A FIFO is passed over by the walk; one behind a link named like a card
  // reaches the open, which must not block.
  ASSERT_EQ(::mkfifo((books + "/pipe.vcf").c_str(), 0600), 0);
  fs::create_symlink(books + "/pipe.vcf", books + "/pipelink.vcf");
  home.write("elsewhere/linked/x.vcf", vcard("x", "Linked folder", {"3"}));
  home.write("elsewhere/file.vcf", vcard("y", "Linked file", {"4"}));
  fs::create_directory_symlink(home.path() + "/elsewhere/linked", books + "/folderlink");
  fs::create_symlink(home.path() + "/elsewhere/file.vcf", books + "/filelink.vcf");

  AddressBookSources sources;
  sources.vcardPaths = {books};
  AddressBookLimits limits;
  limits.maxVCardFileBytes = 1024;
  AddressBookLoad load = AddressBookLoader(sources, limits).load();
  EXPECT_EQ(contactsOf(load), (std::vector<std::string>{"4", "1"}))
      << "a linked file is read, a linked folder not entered, the FIFOs and the big file skipped";
  EXPECT_EQ(load.filesSkipped, 2u);

  limits = {};
  limits.maxItems = 1;
  EXPECT_EQ(AddressBookLoader(sources, limits).load().items.size(), 1u);
}

TEST(EvolutionAddressBook, ReadsEveryBookFromACopyIncludingTheLogAndLeavesNothing) {
  testing::TemporaryDirectory home;
  std::string folder = home.path() + "/evolution/addressbook";
  std::string work = home.path() + "/work";
  fs::create_directories(work);
  contacts_fixture::EvolutionBook personal(folder + "/system/contacts.db",
                                          contacts_fixture::EvolutionBook::Journal::writeAheadLog);
  personal.add("pas-id-1", vcard("pas-id-1", "Evo Person", {"+1 555 0101"}, {"evo@example.com"}));
  personal.add("pas-id-2", vcard("pas-id-2", "李娜", {"139 0000 1111"}));
  contacts_fixture::EvolutionBook other(folder + "/1690000000.12345.1@host/contacts.db");
  other.add("x", vcard("x", "Other Book", {"7"}));
  other.close();
  home.write("evolution/addressbook/trash/readme", "no database here");

  // While the first book's connection is open its rows are only in the log.
  ASSERT_TRUE(fs::exists(folder + "/system/contacts.db-wal"));
  std::string databaseBefore = contacts_fixture::readWholeFile(folder + "/system/contacts.db");
  std::string logBefore = contacts_fixture::readWholeFile(folder + "/system/contacts.db-wal");

  auto books = findEvolutionAddressBooks(folder);
  ASSERT_EQ(books.size(), 2u);
  EXPECT_EQ(books[1].databasePath, folder + "/system/contacts.db") << "sorted by book name";
  auto read = readEvolutionAddressBook(books[1].databasePath, work, 1 << 20);
  ASSERT_FALSE(read.failure) << *read.failure;
  ASSERT_EQ(read.vcards.size(), 2u);
  EXPECT_NE(read.vcards[1].find("李娜"), std::string::npos);

  EXPECT_EQ(contacts_fixture::readWholeFile(folder + "/system/contacts.db"), databaseBefore);
  EXPECT_EQ(contacts_fixture::readWholeFile(folder + "/system/contacts.db-wal"), logBefore);
  EXPECT_TRUE(fs::is_empty(work)) << "the copy is removed after reading";

  AddressBookSources sources;
  sources.evolutionAddressBookFolder = folder;
  AddressBookLoad load = AddressBookLoader(sources, {}, work).load();
  EXPECT_EQ(contactsOf(load), (std::vector<std::string>{"7", "+1 555 0101", "evo@example.com", "139 0000 1111"}));
  EXPECT_EQ(load.items[1].identifier, "pas-id-1");
  EXPECT_EQ(load.items[1].name, "Evo Person");
}

TEST(EvolutionAddressBook, BrokenAndOversizedDatabasesAreSkipped) {
  testing::TemporaryDirectory home;
  std::string folder = home.path() + "/addressbook";
  std::string work = home.path() + "/work";
  fs::create_directories(work);
  home.write("addressbook/broken/contacts.db", "this is not an SQLite database, but long enough to look like one");
  {
    contacts_fixture::EvolutionBook good(folder + "/good/contacts.db");
    good.add("g", vcard("g", "Good", {"1"}));
  }
  auto broken = readEvolutionAddressBook(folder + "/broken/contacts.db", work, 1 << 20);
  EXPECT_TRUE(broken.failure);
  EXPECT_TRUE(broken.vcards.empty());
  auto tooLarge = readEvolutionAddressBook(folder + "/good/contacts.db", work, 100);
  EXPECT_TRUE(tooLarge.failure);
  EXPECT_TRUE(fs::is_empty(work));

  AddressBookSources sources;
  sources.evolutionAddressBookFolder = folder;
  AddressBookLoad load = AddressBookLoader(sources, {}, work).load();
  EXPECT_EQ(contactsOf(load), std::vector<std::string>{"1"});
  EXPECT_EQ(load.filesSkipped, 1u);
}

}  // namespace
}  // namespace quorvi

// The reader against real SQLite files: working copies, journals, logs, and
// files that are damaged or from other Zotero versions.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "zotero/database_reader.h"
#include "zotero/working_copy.h"
#include "zotero/zotero_fixture.h"

namespace quorvi {
namespace {

using zotero_fixture::FieldNumbering;
using zotero_fixture::TemporaryDirectory;
using zotero_fixture::ZoteroLibraryFixture;
namespace fs = std::filesystem;

struct ReaderTest : ::testing::Test {
  TemporaryDirectory temp;
  std::string folder = temp.path() + "/Zotero";
  std::string work = temp.path() + "/work";
  void SetUp() override { fs::create_directories(work); }
  ZoteroReadResult read() { return readZoteroDatabase(folder, work); }
};

TEST_F(ReaderTest, FailureTextsForMissingDatabaseAndWorkingDirectory) {
  EXPECT_EQ(read().failure, "Zotero Library Not Exist");
  ZoteroLibraryFixture library(folder);
  EXPECT_EQ(readZoteroDatabase(folder, "").failure, "Zotero Library Database Not Exist");
  // A working directory that cannot hold files: the copy's error is the text.
  auto result = readZoteroDatabase(folder, temp.path() + "/absent/deeper");
  EXPECT_FALSE(result.database);
  EXPECT_FALSE(result.failure.empty());
}

TEST_F(ReaderTest, ReadsRowsWithCollectionKeyFromLibraryDigits) {
  ZoteroLibraryFixture library(folder);
  int64_t group = library.addGroup(4355231, "Lab");
  int64_t root = library.addCollection("Root", 0, group);
  int64_t item = library.addItem("journalArticle", {{"title", "Paper"}, {"DOI", "10.1/x"}}, group);
  library.addToCollection(root, item);
  library.addAttachment(library.addItem("attachment", {{"title", "PDF"}}), item, "application/pdf", "storage:a.pdf");
  library.trash(item);

  ::testing::internal::CaptureStdout();
  auto result = read();
  std::string output = ::testing::internal::GetCapturedStdout();
  ASSERT_TRUE(result.database) << result.failure;
  const ZoteroDatabase& db = *result.database;
  EXPECT_EQ(output.rfind("zotero: select groups: 1, t: ", 0), 0u) << output;
  EXPECT_NE(output.find("ms\n"), std::string::npos);

  EXPECT_EQ(db.groupNames.at(group), "Lab");
  EXPECT_EQ(db.collections.at(root).key, std::to_string(group));  // the library id's digits
  EXPECT_EQ(db.collections.at(root).libraryID, group);
  EXPECT_EQ(db.collections.at(root).parentID, 0);
  EXPECT_EQ(db.collectionItems.at(item).orderIndex, 3);
  EXPECT_EQ(db.itemTypeNames.at(4), "journalArticle");
  EXPECT_EQ(db.fieldNames.at(library.fieldID("DOI")), "DOI");
  ASSERT_EQ(db.items.size(), 2u);
  EXPECT_EQ(db.items[0].itemID, item);
  EXPECT_EQ(db.items[0].key, "ITEM2");
  EXPECT_EQ(db.items[0].libraryID, group);
  EXPECT_EQ(db.items[0].dateModified, 1709634030.0);  // 2024-03-05 10:20:30 UTC
  ASSERT_EQ(db.itemData.rowsOf(item).size(), 2u);
  EXPECT_EQ(db.values.find(db.itemData.rowsOf(item)[0].valueID), "Paper");
  EXPECT_EQ(db.attachments.at(db.items[1].itemID).path, "storage:a.pdf");
  EXPECT_TRUE(db.deletedItemIDs.count(item));
}

// Values and itemData rows as Zotero leaves them after years of edits: ids
// with gaps, huge and negative ids, a field added to an old item at the end.
TEST(ZoteroTables, TextMapAndRowsKeepEveryId) {
  ZoteroTextMap values;
  values.insert(1, "one");
  values.insert(3000000000, "far");
  values.insert(-5, "negative");
  values.insert(1, "replaced");
  values.insert(70000, "");
  EXPECT_EQ(values.find(1), "replaced");
  EXPECT_EQ(values.find(3000000000), "far");
  EXPECT_EQ(values.find(-5), "negative");
  EXPECT_EQ(values.find(70000), "");
  EXPECT_FALSE(values.find(2));
  EXPECT_EQ(values.size(), 4u);

  ZoteroItemDataRows rows;
  for (auto row : {ZoteroItemIdentifiers{2, 1, 10}, {1, 1, 11}, {2, 5, 12}, {1, 3, 13}, {2, 2, 14}}) rows.add(row);
  rows.finish();
  auto second = rows.rowsOf(2);
  ASSERT_EQ(second.size(), 3u);
  EXPECT_EQ(second[0].valueID, 10);  // table order kept within an item
  EXPECT_EQ(second[2].valueID, 14);
  EXPECT_EQ(rows.rowsOf(1).size(), 2u);
  EXPECT_TRUE(rows.rowsOf(3).empty());
}

TEST(ZoteroDate, ParsesOnlyTheZoteroFormat) {
  EXPECT_EQ(parseZoteroDate("1970-01-02 00:00:01"), 86401.0);
  EXPECT_FALSE(parseZoteroDate("2024-03-05T10:20:30"));
  EXPECT_FALSE(parseZoteroDate("2024-13-05 10:20:30"));
  EXPECT_FALSE(parseZoteroDate(""));
}

TEST_F(ReaderTest, StaleWorkingFilesAreReplacedAndMissingTablesReadEmpty) {
  ZoteroLibraryFixture library(folder);
  library.addItem("book", {{"title", "Only"}});
  library.exec("DROP TABLE groups; DROP TABLE deletedItems;");
  std::ofstream(work + "/temp-zotero.sqlite-journal") << "stale journal from an earlier run";
  std::ofstream(work + "/temp-zotero.sqlite-wal") << "stale log";
  auto result = read();
  ASSERT_TRUE(result.database) << result.failure;
  EXPECT_TRUE(result.database->groupNames.empty());
  EXPECT_EQ(result.database->items.size(), 1u);
  EXPECT_FALSE(fs::exists(work + "/temp-zotero.sqlite-journal"));
  EXPECT_FALSE(fs::exists(work + "/temp-zotero.sqlite-wal"));
  EXPECT_TRUE(fs::exists(work + "/temp-zotero.sqlite"));  // stays until the next read
}

// Zotero in the middle of a write: its changes have spilled into the file and
// the journal holds the old pages. The copy must read as the last commit.
TEST_F(ReaderTest, HotJournalIsRolledBackOnTheCopy) {
  ZoteroLibraryFixture library(folder);
  for (int i = 0; i < 200; ++i) library.addItem("book", {{"title", "Committed " + std::to_string(i)}});
  library.exec("PRAGMA cache_size=2; BEGIN;");
  for (int i = 0; i < 300; ++i)
    library.addItem("book", {{"title", "Uncommitted " + std::string(200, 'x') + std::to_string(i)}});
  ASSERT_TRUE(fs::exists(library.databasePath() + "-journal"));

  auto result = read();
  EXPECT_TRUE(fs::exists(library.databasePath() + "-journal"));  // the user's journal is untouched
  library.exec("ROLLBACK;");
  ASSERT_TRUE(result.database) << result.failure;
  EXPECT_EQ(result.database->items.size(), 200u);
  // Between writes Zotero leaves a journal with a zeroed header: nothing to undo.
  std::ofstream(library.databasePath() + "-journal") << std::string(512, '\0');
  EXPECT_EQ(read().database->items.size(), 200u);
  for (int64_t id = 0; id < 1000; ++id) {
    auto value = result.database->values.find(id);
    EXPECT_TRUE(!value || value->find("Uncommitted") == std::string::npos) << *value;
  }
}

// Zotero 10 keeps recent commits in the write-ahead log until a checkpoint.
TEST_F(ReaderTest, WriteAheadLogIsCopiedAlong) {
  ZoteroLibraryFixture library(folder);
  library.exec("PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;");
  library.addItem("book", {{"title", "In the log"}});
  ASSERT_GT(fs::file_size(library.databasePath() + "-wal"), 0u);

  auto result = read();
  ASSERT_TRUE(result.database) << result.failure;
  ASSERT_EQ(result.database->items.size(), 1u);
  EXPECT_EQ(result.database->values.find(1), "In the log");
  EXPECT_TRUE(fs::exists(library.databasePath() + "-wal"));  // the user's log stays
}

TEST_F(ReaderTest, DamagedAndForeignFilesNeverCrash) {
  fs::create_directories(folder);
  std::ofstream(folder + "/zotero.sqlite") << std::string(5000, 'n') << "not a database";
  auto garbage = read();
  if (garbage.database) {
    EXPECT_TRUE(garbage.database->items.empty());
  } else {
    EXPECT_FALSE(garbage.failure.empty());
  }

  fs::remove(folder + "/zotero.sqlite");
  fs::create_directories(folder + "/zotero.sqlite");  // a folder where the file should be
  EXPECT_FALSE(read().database);
  fs::remove(folder + "/zotero.sqlite");
  ASSERT_EQ(::mkfifo((folder + "/zotero.sqlite").c_str(), 0600), 0);  // nobody will ever write to it
  EXPECT_FALSE(read().database);

  fs::remove_all(folder);
  {
    ZoteroLibraryFixture library(folder);
    for (int i = 0; i < 400; ++i)
      library.addItem("book", {{"title", "Book " + std::string(300, 'b') + std::to_string(i)}});
  }
  fs::resize_file(folder + "/zotero.sqlite", fs::file_size(folder + "/zotero.sqlite") / 2);
  auto truncated = read();  // a partial result or a failure text, whichever SQLite allows
  if (!truncated.database) {
    EXPECT_FALSE(truncated.failure.empty());
  }
}

// Zotero 4: attachments have "mimeType" where later versions have "contentType".
TEST_F(ReaderTest, ZoteroFourLayoutGivesAPartialResult) {
  {
    ZoteroLibraryFixture library(folder, FieldNumbering::legacy);
    library.addItem("book", {{"title", "Old"}, {"url", "http://old"}});
    library.exec(
        "DROP TABLE itemAttachments; CREATE TABLE itemAttachments (itemID INTEGER PRIMARY KEY,"
        " sourceItemID INT, linkMode INT, mimeType TEXT, charsetID INT, path TEXT);"
        "INSERT INTO itemAttachments VALUES (1, NULL, 0, 'application/pdf', 0, 'storage:old.pdf');");
  }
  auto result = read();
  ASSERT_TRUE(result.database) << result.failure;
  EXPECT_TRUE(result.database->attachments.empty());
  EXPECT_EQ(result.database->items.size(), 1u);
}

}  // namespace
}  // namespace quorvi

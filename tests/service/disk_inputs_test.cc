// Files the service reads because it found them on disk, with something else
// in their place: a FIFO (blocks a plain open forever), a device (reads
// forever), a huge sparse file (exhausts memory when read whole). Each reader
// must come back at once with its "nothing there" answer.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/language.h"
#include "common/settings.h"
#include "pinyin/polyphone_table.h"
#include "platform/safe_file.h"
#include "service/task_performer.h"
#include "support/blocking_trap.h"
#include "zotero/zotero_indexer.h"

namespace quorvi {
namespace {

namespace fs = std::filesystem;
using testing::expectReturnsWithoutBlocking;
using testing::makeFifo;

class DiskInputsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "quorvi-disk-inputs-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string path(const std::string& relative) {
    fs::path p = fs::path(dir_) / relative;
    fs::create_directories(p.parent_path());
    return p.string();
  }
  // A file that claims `size` bytes without taking them (a hole).
  std::string sparse(const std::string& relative, off_t size) {
    std::string p = path(relative);
    int fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(::ftruncate(fd, size), 0);
    ::close(fd);
    return p;
  }
  std::string dir_;
};

TEST_F(DiskInputsTest, SettingsReadAsEmptyWhenTheirFileIsNoRegularFile) {
  std::string fifo = path("fifo/settings.json");
  ASSERT_TRUE(makeFifo(fifo));
  expectReturnsWithoutBlocking(fifo, [&] { EXPECT_FALSE(Settings(fifo).stringValue("k")); }, "Settings");

  std::string device = path("device/settings.json");
  fs::create_symlink("/dev/zero", device);
  EXPECT_FALSE(Settings(device).stringValue("k"));

  // Eight gigabytes of nothing: refused by its size, never read.
  EXPECT_FALSE(Settings(sparse("huge/settings.json", off_t(8) << 30)).stringValue("k"));

  // A real file still works, and writing replaces a damaged one.
  Settings real(path("real/settings.json"));
  ASSERT_TRUE(real.set("k", "v"));
  EXPECT_EQ(real.stringValue("k"), "v");
}

TEST_F(DiskInputsTest, LocalisationTableInPlaceOfAFifoLeavesKeysUntranslated) {
  Settings settings(path("settings.json"));
  std::string fifo = path("resources/localization/en.json");
  ASSERT_TRUE(makeFifo(fifo));
  expectReturnsWithoutBlocking(
      fifo,
      [&] {
        Language language(settings, {"en-US"}, dir_ + "/resources");
        EXPECT_EQ(language.localizedString("ERROR_NO_RESULT"), "ERROR_NO_RESULT");
      },
      "Language");
}

TEST_F(DiskInputsTest, PolyphoneTableThatIsNoRegularFileIsRejected) {
  std::string fifo = path("PinyinDuoyinzi.json");
  ASSERT_TRUE(makeFifo(fifo));
  expectReturnsWithoutBlocking(
      fifo, [&] { EXPECT_FALSE(readPolyphoneTable(fifo).error.empty()); }, "readPolyphoneTable");
  EXPECT_FALSE(readPolyphoneTable("/dev/zero").error.empty());
  EXPECT_FALSE(readPolyphoneTable(sparse("big.json", off_t(1) << 32)).error.empty());
}

TEST_F(DiskInputsTest, CompanionLookupSkipsADesktopEntryThatIsAFifo) {
  std::string fifo = path("data/applications/com.meltrane.quorvi.desktop");
  ASSERT_TRUE(makeFifo(fifo));
  expectReturnsWithoutBlocking(
      fifo, [&] { EXPECT_FALSE(QuorviTaskPerformer::programOfDesktopEntry(fifo)); }, "programOfDesktopEntry");
  EXPECT_FALSE(QuorviTaskPerformer::programOfDesktopEntry(sparse("huge.desktop", off_t(1) << 33)));
}

// The Zotero library's files are copied before they are read; a FIFO in
// place of the database or of its journal fails the request with a text.
TEST_F(DiskInputsTest, ZoteroFilesThatAreNoRegularFilesFailTheRequest) {
  fs::create_directories(dir_ + "/work");
  auto indexer = ZoteroIndexer::make({dir_ + "/work", 1800.0, nullptr});

  std::string database = path("fifo-library/zotero.sqlite");
  ASSERT_TRUE(makeFifo(database));
  expectReturnsWithoutBlocking(
      database,
      [&] {
        auto answer = indexer->index(dir_ + "/fifo-library", false);
        EXPECT_FALSE(answer.data);
        EXPECT_EQ(answer.failure, "Not a regular file");
      },
      "ZoteroIndexer (database)");

  std::string real = path("journal-library/zotero.sqlite");
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(real.c_str(), &db), SQLITE_OK);
  sqlite3_exec(db, "CREATE TABLE items (itemID INTEGER);", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  std::string journal = real + "-journal";
  ASSERT_TRUE(makeFifo(journal));
  expectReturnsWithoutBlocking(
      journal,
      [&] {
        auto answer = indexer->index(dir_ + "/journal-library", false);
        EXPECT_FALSE(answer.data);
        EXPECT_EQ(answer.failure, "Not a regular file");
      },
      "ZoteroIndexer (journal)");
}

}  // namespace
}  // namespace quorvi

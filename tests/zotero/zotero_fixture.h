// Builds Zotero data folders for tests: a real SQLite "zotero.sqlite" with
// Zotero's own table layout (column order matters to `SELECT *`), filled
// through small helpers. Field ids follow either the numbering of libraries
// created since Zotero 5.0.78 (title = 1) or the older one (url = 1, title = 110).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <initializer_list>
#include <utility>
#include <variant>
#include <vector>

namespace quorvi::zotero_fixture {

// A fresh directory under the system's temporary folder, removed on destruction.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

enum class FieldNumbering { current, legacy };

using FieldValues = std::vector<std::pair<std::string, std::string>>;  // field name, value

class ZoteroLibraryFixture {
 public:
  // Creates folder/zotero.sqlite with the user's library (libraryID 1).
  explicit ZoteroLibraryFixture(std::string folder, FieldNumbering numbering = FieldNumbering::current);
  ~ZoteroLibraryFixture();

  const std::string& folder() const { return folder_; }
  std::string databasePath() const { return folder_ + "/zotero.sqlite"; }
  sqlite3* connection() const { return db_; }
  void exec(const std::string& sql);
  int64_t fieldID(const std::string& name) const;
  int64_t itemTypeID(const std::string& name) const;

  // A group library; answers its libraryID.
  int64_t addGroup(int64_t groupID, const std::string& name);
  int64_t addCollection(const std::string& name, int64_t parentID = 0, int64_t libraryID = 1);
  // Fields are written in ascending field id, as Zotero writes them.
  int64_t addItem(const std::string& type, const FieldValues& fields, int64_t libraryID = 1);
  int64_t addItemWithTypeID(int64_t itemTypeID, const FieldValues& fields, int64_t libraryID = 1);
  void addToCollection(int64_t collectionID, int64_t itemID);
  void addAttachment(int64_t itemID, int64_t parentItemID, const std::string& contentType, const std::string& path);
  void trash(int64_t itemID);
  // Closes the connection (for tests that copy or damage the file).
  void close();

 private:
  using Value = std::variant<int64_t, std::string>;
  int64_t run(const char* sql, std::initializer_list<Value> values);
  std::string folder_;
  FieldNumbering numbering_;
  sqlite3* db_ = nullptr;
  int64_t nextKey_ = 0;
};

}  // namespace quorvi::zotero_fixture
